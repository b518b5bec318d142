#include "../system/LocalZone.h"

#include <OKVDataManager/okvCmnUtil.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <thread>

using okv::Date;

namespace {

constexpr Date kBase{1264951800};  // 2010-01-31 15:30:00 UTC
constexpr const char* kLocal = "America/New_York";

using Formatter = std::string (*)(std::string_view, std::optional<Date>);

struct FormRow {
    Formatter formatter;
    const char* abbreviation;
    Date date;
    const char* text;
};

class Form : public testing::TestWithParam<FormRow> {};

struct ParseRow {
    const char* zone;
    const char* text;
    std::optional<double> instant;
};

class YearMonth : public testing::TestWithParam<ParseRow> {};
class YearMonthDay : public testing::TestWithParam<ParseRow> {};

std::optional<Date> dateOf(std::optional<double> seconds) {
    if (!seconds) return std::nullopt;
    return Date{*seconds};
}

}  // namespace

TEST_P(Form, WritesTheInstantInTheZone) {
    const LocalZone local(kLocal);
    EXPECT_EQ(GetParam().formatter(GetParam().abbreviation, GetParam().date), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, Form,
    testing::Values(
        FormRow{okvCmnUtil::nowDate_baseDate, "JST", kBase, "2010/02/01 00:30:00"},
        FormRow{okvCmnUtil::nowDateOnly_baseDate, "JST", kBase, "20100201"},
        FormRow{okvCmnUtil::nowDateOnlySlash_baseDate, "JST", kBase, "2010/02/01"},
        FormRow{okvCmnUtil::nowTime_baseDate, "JST", kBase, "00:30:00"},
        FormRow{okvCmnUtil::nowDate_baseDate, "UTC", kBase, "2010/01/31 15:30:00"},
        FormRow{okvCmnUtil::nowTime_baseDate, "PST", kBase, "07:30:00"},
        // Unknown or no abbreviation: the local zone.
        FormRow{okvCmnUtil::nowDate_baseDate, "XYZ", kBase, "2010/01/31 10:30:00"},
        FormRow{okvCmnUtil::nowDate_baseDate, "", kBase, "2010/01/31 10:30:00"},
        FormRow{okvCmnUtil::nowDate_baseDate, "jst", kBase, "2010/01/31 10:30:00"},
        FormRow{okvCmnUtil::nowDateOnly_baseDate, "XYZ", kBase, "20100131"},
        FormRow{okvCmnUtil::nowDateOnlySlash_baseDate, "XYZ", kBase, "2010/01/31"},
        FormRow{okvCmnUtil::nowTime_baseDate, "XYZ", kBase, "10:30:00"},
        // Japan had summer time in 1949: no fixed offset would do.
        FormRow{okvCmnUtil::nowDate_baseDate, "JST", {-646963200}, "1949/07/02 10:00:00"},
        FormRow{okvCmnUtil::nowDate_baseDate, "JST", {-662688000}, "1949/01/01 09:00:00"},
        FormRow{okvCmnUtil::nowDate_baseDate, "JST", {-0.5}, "1970/01/01 08:59:59"},
        FormRow{okvCmnUtil::nowDate_baseDate, "UTC", {64092211200}, "4001/01/01 00:00:00"},
        FormRow{okvCmnUtil::nowDateOnly_baseDate, "UTC", {-62135596800}, "00010101"},
        FormRow{okvCmnUtil::nowDate_baseDate, "EST", {2541456000}, "2050/07/14 20:00:00"},
        // What has no text is written as a missing object.
        FormRow{okvCmnUtil::nowDate_baseDate, "JST", {1e300}, "(null)"},
        FormRow{okvCmnUtil::nowDateOnly_baseDate, "JST", {std::nan("")}, "(null)"},
        FormRow{okvCmnUtil::nowTime_baseDate, "XYZ", {-1e18}, "(null)"}));

class PresentForm : public testing::TestWithParam<Formatter> {};

TEST_P(PresentForm, WithoutABaseDateIsThePresentInstants) {
    const double before = std::floor(Date::now().secondsSince1970);
    const auto text = GetParam()("JST", std::nullopt);
    const double after = Date::now().secondsSince1970;
    bool matches = false;
    for (double second = before; second <= after; ++second)
        matches = matches || text == GetParam()("JST", Date{second});
    EXPECT_TRUE(matches) << text;
}

INSTANTIATE_TEST_SUITE_P(Rows, PresentForm,
                         testing::Values(okvCmnUtil::nowDate_baseDate,
                                         okvCmnUtil::nowDateOnly_baseDate,
                                         okvCmnUtil::nowDateOnlySlash_baseDate,
                                         okvCmnUtil::nowTime_baseDate));

TEST(DateText, OfSecondsIsInJapanWhateverTheLocalZone) {
    const LocalZone local(kLocal);
    EXPECT_EQ(okvCmnUtil::descriptionWithTimeIntervalSince1970(0), "1970/01/01 09:00:00");
    EXPECT_EQ(okvCmnUtil::descriptionWithTimeIntervalSince1970(-646963200), "1949/07/02 10:00:00");
    EXPECT_EQ(okvCmnUtil::descriptionWithTimeIntervalSince1970(-86400.5), "1969/12/31 08:59:59");
}

TEST(DateText, OfSecondsThatAreNoInstantIsNone) {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    for (const double seconds : {infinity, -infinity, std::nan(""), 1e300, -1e18, 253402300800.0})
        EXPECT_FALSE(okvCmnUtil::descriptionWithTimeIntervalSince1970(seconds)) << seconds;
}

TEST(BaseDate, IsACalendarDateInJapan) {
    const auto date = okvCmnUtil::baseDateJST(kBase);
    ASSERT_TRUE(date);
    EXPECT_EQ(date->instant(), kBase);
    EXPECT_EQ(date->timeZone().name(), "Asia/Tokyo");
    EXPECT_EQ(date->day(), 1);
    EXPECT_EQ(date->description(), "2010-02-01 00:30:00 +0900");
    EXPECT_FALSE(okvCmnUtil::baseDateJST(Date{std::nan("")}));
}

TEST(BaseDate, WithoutADateIsThePresentInstant) {
    const double before = Date::now().secondsSince1970;
    const auto date = okvCmnUtil::baseDateJST(std::nullopt);
    ASSERT_TRUE(date);
    EXPECT_GE(date->instant().secondsSince1970, before);
    EXPECT_LE(date->instant().secondsSince1970, Date::now().secondsSince1970);
}

TEST(BaseCalendar, IsInJapanAndLeavesTheParsersInTheLocalZone) {
    const LocalZone local(kLocal);
    const auto calendar = okvCmnUtil::baseCalJST();
    EXPECT_EQ(calendar.timeZone().name(), "Asia/Tokyo");
    EXPECT_EQ(calendar.dateFromComponents({2010, 3, 15}), Date{1268578800});
    EXPECT_EQ(okvCmnUtil::createDateFromyyyymmdd("20100315"), Date{1268625600});
}

TEST_P(YearMonth, GivesTheFirstInstantOfTheMonth) {
    const LocalZone local(GetParam().zone);
    EXPECT_EQ(okvCmnUtil::createDateFromyyyymm(GetParam().text), dateOf(GetParam().instant));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, YearMonth,
    testing::Values(ParseRow{"UTC", "201003", 1267401600},
                    ParseRow{"Asia/Tokyo", "201003", 1267369200},
                    ParseRow{"America/New_York", "201003", 1267419600},
                    ParseRow{"UTC", "194907", -646963200 - 86400},
                    ParseRow{"UTC", "2010031", std::nullopt},
                    ParseRow{"UTC", "20103", std::nullopt}, ParseRow{"UTC", "", std::nullopt},
                    ParseRow{"UTC", "20100315", std::nullopt},
                    // Months out of range roll over.
                    ParseRow{"UTC", "201000", 1259625600}, ParseRow{"UTC", "201013", 1293840000},
                    // A field reads as its leading digits.
                    ParseRow{"UTC", "2010x3", 1259625600}, ParseRow{"UTC", "20103x", 1267401600},
                    ParseRow{"UTC",
                             "201\xC3\xA9"
                             "03",
                             -55819152000},
                    ParseRow{"UTC", "2010 3", 1267401600},
                    // December before the year 0.
                    ParseRow{"UTC", "abcdef", -62169897600}));

TEST_P(YearMonthDay, GivesTheFirstInstantOfTheDay) {
    const LocalZone local(GetParam().zone);
    EXPECT_EQ(okvCmnUtil::createDateFromyyyymmdd(GetParam().text), dateOf(GetParam().instant));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, YearMonthDay,
    testing::Values(
        ParseRow{"UTC", "20100315", 1268611200}, ParseRow{"Asia/Tokyo", "20100315", 1268578800},
        ParseRow{"America/New_York", "20100315", 1268625600},
        ParseRow{"America/Sao_Paulo", "20181104", 1541300400},
        ParseRow{"Africa/Cairo", "20230428", 1682632800}, ParseRow{"UTC", "99991231", 253402214400},
        ParseRow{"UTC", "19000101", -2208988800}, ParseRow{"UTC", "201003", std::nullopt},
        ParseRow{"UTC", "201003150", std::nullopt}, ParseRow{"UTC", "", std::nullopt},
        ParseRow{"UTC", "20100300", 1267315200}, ParseRow{"UTC", "20100231", 1267574400},
        ParseRow{"UTC", "20101301", 1293840000}, ParseRow{"UTC", "20100001", 1259625600},
        ParseRow{"UTC", "201003xx", 1267315200},
        // "-3" and "-1": a sign belongs to the number. 30 August 2009.
        ParseRow{"UTC", "2010-3-1", 1251590400},
        // Eight characters of three bytes each, none of them a digit of ours.
        ParseRow{"UTC",
                 "\xEF\xBC\x92\xEF\xBC\x90\xEF\xBC\x91\xEF\xBC\x90"
                 "\xEF\xBC\x90\xEF\xBC\x93\xEF\xBC\x91\xEF\xBC\x95",
                 -62169984000},
        // One character beyond U+FFFF counts as two.
        ParseRow{"UTC", "201003\xF0\x9F\x98\x80", 1267315200},
        ParseRow{"UTC", "2010031\xF0\x9F\x98\x80", std::nullopt}));

TEST(DateText, TwoThreadsInTwoZonesDoNotDisturbEachOther) {
    const LocalZone local(kLocal);
    const auto work = [](const char* abbreviation, const char* expected) {
        for (int i = 0; i < 1000; ++i)
            ASSERT_EQ(okvCmnUtil::nowTime_baseDate(abbreviation, kBase), expected);
    };
    std::jthread japan(work, "JST", "00:30:00");
    std::jthread localZone(work, "", "10:30:00");
    work("CET", "16:30:00");
}
