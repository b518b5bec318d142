#include "LocalZone.h"

#include <OKVPlatform/process/Task.h>
#include <OKVPlatform/system/Calendar.h>

#include <gtest/gtest.h>

#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <filesystem>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "support/Files.h"
#include "support/ForkedChild.h"

using okv::Calendar;
using okv::CalendarDate;
using okv::Date;
using okv::DateComponents;
using okv::TimeZone;

namespace {

TimeZone zone(const char* name) {
    const auto found = TimeZone::named(name);
    if (!found) throw std::runtime_error(std::string("no zone ") + name);
    return *found;
}

std::string shown(double seconds, const TimeZone& inZone) {
    const auto date = CalendarDate::of({seconds}, inZone);
    return date ? date->description() : "none";
}

}  // namespace

struct AbbreviationRow {
    const char* abbreviation;
    const char* zone;
};

class Abbreviation : public testing::TestWithParam<AbbreviationRow> {};

TEST_P(Abbreviation, StandsForAZoneWithItsHistory) {
    const auto found = TimeZone::withAbbreviation(GetParam().abbreviation);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->name(), GetParam().zone);
}

INSTANTIATE_TEST_SUITE_P(Rows, Abbreviation,
                         testing::Values(AbbreviationRow{"JST", "Asia/Tokyo"},
                                         AbbreviationRow{"UTC", "Etc/UTC"},
                                         AbbreviationRow{"GMT", "Etc/GMT"},
                                         AbbreviationRow{"ADT", "America/Halifax"},
                                         AbbreviationRow{"PST", "America/Los_Angeles"},
                                         AbbreviationRow{"BRT", "America/Sao_Paulo"},
                                         AbbreviationRow{"WIB", "Asia/Jakarta"},
                                         AbbreviationRow{"CEST", "Europe/Paris"}));

TEST(TimeZone, AnUnknownAbbreviationGivesNone) {
    for (const char* text : {"", "XYZ", "jst", "JS", "JSTX", "Asia/Tokyo", "ZZZ", "AAA"})
        EXPECT_FALSE(TimeZone::withAbbreviation(text)) << text;
    EXPECT_FALSE(TimeZone::withAbbreviation(std::string_view("JST\0", 4)));
}

TEST(TimeZone, ANameThatIsNoZoneGivesNone) {
    EXPECT_FALSE(TimeZone::named("Mars/Olympus"));
    EXPECT_FALSE(TimeZone::named("../../../etc/passwd"));
    EXPECT_FALSE(TimeZone::named(""));
}

struct OffsetRow {
    const char* zone;
    std::int64_t instant;
    std::int64_t offset;
};

class Offset : public testing::TestWithParam<OffsetRow> {};

TEST_P(Offset, IsTheOneInForceAtTheInstant) {
    EXPECT_EQ(zone(GetParam().zone).offsetAt(GetParam().instant), GetParam().offset);
}

TEST_P(Offset, IsTheSameWhenTheZoneIsTheLocalOne) {
    const LocalZone local(GetParam().zone);
    EXPECT_EQ(TimeZone::local().offsetAt(GetParam().instant), GetParam().offset);
}

// 1949-07-02, 1949-01-01, 1880-01-01, 2026-01-15, 2050-01-15, 2050-07-15 in turn.
INSTANTIATE_TEST_SUITE_P(Rows, Offset,
                         testing::Values(OffsetRow{"Asia/Tokyo", -646963200, 36000},
                                         OffsetRow{"Asia/Tokyo", -662688000, 32400},
                                         OffsetRow{"Asia/Tokyo", -2840140800, 33539},
                                         OffsetRow{"America/New_York", 1768435200, -18000},
                                         OffsetRow{"America/New_York", 2525817600, -18000},
                                         OffsetRow{"America/New_York", 2541456000, -14400},
                                         OffsetRow{"Australia/Sydney", 2525817600, 39600},
                                         OffsetRow{"Australia/Sydney", 2541456000, 36000},
                                         OffsetRow{"Asia/Tokyo", 2541456000, 32400},
                                         OffsetRow{"America/Sao_Paulo", 2525817600, -10800}));

namespace {

constexpr char kZoneCompiler[] = "/usr/sbin/zic";
constexpr char kRules[] =
    "Rule R 2007 max - Mar Sun>=8 2:00 1:00 D\n"
    "Rule R 2007 max - Nov Sun>=1 2:00 0 S\n"
    "Zone America/Boise -7:00 R M%sT\n";

void compile(const std::string& rules, const std::string& into) {
    okv::Task task;
    task.setLaunchPath(kZoneCompiler);
    task.setArguments({"-b", "slim", "-d", into, rules});
    task.launch();
    task.waitUntilExit();
}

/// In a process of its own: puts the zone file in the system's one's place, and looks into it.
[[noreturn]] void lookInto(const std::string& file) {
    constexpr char kInstalled[] = "/usr/share/zoneinfo/America/Boise";
    if (unshare(CLONE_NEWNS) != 0 || mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount(file.c_str(), kInstalled, nullptr, MS_BIND, nullptr) != 0)
        _exit(77);
    const auto boise = zone("America/Boise");
    const bool isRight = boise.offsetAt(1752580800) == -21600 &&  // July and December 2025
                         boise.offsetAt(1765800000) == -25200 &&
                         boise.offsetAt(1783000000) == -21600 &&  // July 2026
                         boise.offsetAt(1800000000) == -25200 &&  // January 2027
                         boise.offsetAt(2225700000) == -21600;    // July 2040
    _exit(isRight ? 0 : 1);
}

}  // namespace

TEST(TimeZone, ASlimZoneFilesRuleHoldsAfterItsLastListedChange) {
    if (access(kZoneCompiler, X_OK) != 0) GTEST_SKIP() << "no " << kZoneCompiler;
    const support::TempFolder folder;
    compile(folder.write("rules", kRules), folder / "out");
    ASSERT_EQ(access((folder / "out/America/Boise").c_str(), R_OK), 0);
    const auto child = fork();
    if (child == 0) lookInto(folder / "out/America/Boise");
    int status = 0;
    waitpid(child, &status, 0);
    if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "no right to make a mount namespace";
    EXPECT_EQ(status, 0);
}

TEST(TimeZone, TheLocalZoneTakesEveryFormOfTheVariable) {
    const std::int64_t july2020 = 1594771200;
    for (const char* form : {"America/New_York", ":America/New_York", "EST5EDT,M3.2.0,M11.1.0",
                             "/usr/share/zoneinfo/America/New_York"}) {
        const LocalZone local(form);
        EXPECT_EQ(TimeZone::local().offsetAt(july2020), -14400) << form;
    }
    const LocalZone nonsense("No/Such/Zone");
    EXPECT_EQ(TimeZone::local().offsetAt(july2020), 0);
}

struct ShownRow {
    double seconds;
    const char* zone;
    const char* text;
};

class Shown : public testing::TestWithParam<ShownRow> {};

TEST_P(Shown, AsTheClocksOfTheZoneShowIt) {
    EXPECT_EQ(shown(GetParam().seconds, zone(GetParam().zone)), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, Shown,
    testing::Values(ShownRow{0, "Asia/Tokyo", "1970-01-01 09:00:00 +0900"},
                    ShownRow{-1, "Etc/UTC", "1969-12-31 23:59:59 +0000"},
                    ShownRow{-0.25, "Etc/UTC", "1969-12-31 23:59:59 +0000"},
                    ShownRow{0.75, "Etc/UTC", "1970-01-01 00:00:00 +0000"},
                    ShownRow{-646963200, "Asia/Tokyo", "1949-07-02 10:00:00 +1000"},
                    ShownRow{-2840140800, "Asia/Tokyo", "1880-01-01 09:18:59 +0918"},
                    ShownRow{1709164800, "Etc/UTC", "2024-02-29 00:00:00 +0000"},
                    ShownRow{0, "America/St_Johns", "1969-12-31 20:30:00 -0330"},
                    ShownRow{-62135596800, "Etc/UTC", "0001-01-01 00:00:00 +0000"},
                    ShownRow{253402300799, "Etc/UTC", "9999-12-31 23:59:59 +0000"},
                    ShownRow{253402300799, "Asia/Tokyo", "none"},
                    ShownRow{253402268400 - 0.5, "Asia/Tokyo", "9999-12-31 23:59:59 +0900"},
                    ShownRow{253402300800, "Etc/UTC", "none"},
                    ShownRow{-62135596801, "Etc/UTC", "none"}, ShownRow{1e18, "Etc/UTC", "none"},
                    ShownRow{-1e300, "Asia/Tokyo", "none"},
                    ShownRow{std::numeric_limits<double>::max(), "Etc/UTC", "none"},
                    ShownRow{std::numeric_limits<double>::infinity(), "Etc/UTC", "none"},
                    ShownRow{-std::numeric_limits<double>::infinity(), "Etc/UTC", "none"},
                    ShownRow{std::nan(""), "Etc/UTC", "none"}));

TEST(CalendarDate, KnowsItsFields) {
    const auto date = CalendarDate::of({1264951800.5}, zone("Asia/Tokyo"));
    ASSERT_TRUE(date);
    EXPECT_EQ(date->year(), 2010);
    EXPECT_EQ(date->month(), 2);
    EXPECT_EQ(date->day(), 1);
    EXPECT_EQ(date->hour(), 0);
    EXPECT_EQ(date->minute(), 30);
    EXPECT_EQ(date->second(), 0);
    EXPECT_EQ(date->offset(), 32400);
    EXPECT_EQ(date->instant(), Date{1264951800.5});
    EXPECT_EQ(date->timeZone().name(), "Asia/Tokyo");
}

TEST(CalendarDate, WritesWhatIsNoDirectiveAsItStands) {
    const auto date = CalendarDate::of({0}, zone("Etc/UTC"), "100%% %q %Y%");
    EXPECT_EQ(date->description(), "100% %q 1970%");
}

struct DayRow {
    const char* zone;
    DateComponents components;
    double instant;
};

class FirstInstant : public testing::TestWithParam<DayRow> {};

TEST_P(FirstInstant, OfADay) {
    const Calendar calendar(zone(GetParam().zone));
    EXPECT_EQ(calendar.dateFromComponents(GetParam().components), Date{GetParam().instant});
}

TEST_P(FirstInstant, OfADayInTheLocalZone) {
    const LocalZone local(GetParam().zone);
    EXPECT_EQ(Calendar::current().dateFromComponents(GetParam().components),
              Date{GetParam().instant});
}

INSTANTIATE_TEST_SUITE_P(
    Rows, FirstInstant,
    testing::Values(DayRow{"Etc/UTC", {2010, 3, 15}, 1268611200},
                    DayRow{"Asia/Tokyo", {2010, 3, 15}, 1268578800},
                    DayRow{"America/New_York", {2010, 3, 15}, 1268625600},
                    DayRow{"America/New_York", {2050, 7, 15}, 2541470400},
                    // Clocks went from 23:59:59 to 01:00:00, so the day began at one o'clock.
                    DayRow{"America/Sao_Paulo", {2018, 11, 4}, 1541300400},
                    DayRow{"America/Sao_Paulo", {2018, 11, 3}, 1541214000},
                    DayRow{"America/Sao_Paulo", {2018, 11, 5}, 1541383200},
                    DayRow{"Africa/Cairo", {2023, 4, 28}, 1682632800},
                    DayRow{"Asia/Beirut", {2024, 3, 31}, 1711836000},
                    // Clocks went back from midnight to 23:00: one midnight only.
                    DayRow{"America/Sao_Paulo", {2018, 2, 18}, 1518922800},
                    // Clocks went back from 01:00 to midnight: two midnights, the first one counts.
                    DayRow{"America/Havana", {2023, 11, 5}, 1699156800},
                    // The whole day was left out at the date line: the next day's beginning.
                    DayRow{"Pacific/Apia", {2011, 12, 30}, 1325239200},
                    DayRow{"Pacific/Apia", {2011, 12, 31}, 1325239200},
                    DayRow{"Asia/Tokyo", {1949, 7, 2}, -646999200},
                    DayRow{"Asia/Tokyo", {1900, 1, 1}, -2209021200}));

struct RollRow {
    DateComponents given;
    DateComponents same;
};

class RollOver : public testing::TestWithParam<RollRow> {};

TEST_P(RollOver, TurnsOutOfRangeNumbersIntoTheDayTheyReach) {
    const Calendar calendar(zone("Etc/UTC"));
    EXPECT_TRUE(calendar.dateFromComponents(GetParam().same));
    EXPECT_EQ(calendar.dateFromComponents(GetParam().given),
              calendar.dateFromComponents(GetParam().same));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, RollOver,
    testing::Values(RollRow{{2010, 0, 1}, {2009, 12, 1}}, RollRow{{2010, 13, 1}, {2011, 1, 1}},
                    RollRow{{2010, 99, 1}, {2018, 3, 1}}, RollRow{{2010, -9, 1}, {2009, 3, 1}},
                    RollRow{{2010, 3, 0}, {2010, 2, 28}}, RollRow{{2010, 2, 31}, {2010, 3, 3}},
                    RollRow{{2012, 3, 0}, {2012, 2, 29}}, RollRow{{2010, 1, 99}, {2010, 4, 9}},
                    RollRow{{2010, 1, -9}, {2009, 12, 22}}, RollRow{{0, 0, 0}, {-1, 11, 30}},
                    RollRow{{2010}, {2010, 1, 1}}));

TEST(Calendar, DaysFarOutsideOfTheCalendarGiveNone) {
    const Calendar calendar(zone("Etc/UTC"));
    for (const auto& components : {DateComponents{INT32_MAX, INT32_MAX, INT32_MAX},
                                   DateComponents{INT32_MIN, INT32_MIN, INT32_MIN},
                                   DateComponents{10000, 1, 1}, DateComponents{9999, 12, 32},
                                   DateComponents{-10000, 12, 31}, DateComponents{1, 1, INT32_MAX}})
        EXPECT_FALSE(calendar.dateFromComponents(components));
    EXPECT_TRUE(calendar.dateFromComponents({9999, 12, 31}));
    EXPECT_TRUE(calendar.dateFromComponents({-9999, 1, 1}));
}

namespace {

// Another zone with each call, since each is read once.
class ManyZones {
public:
    ManyZones() {
        namespace fs = std::filesystem;
        for (const std::string area : {"Africa", "America", "Asia", "Europe", "Pacific"}) {
            for (const auto& file : fs::directory_iterator("/usr/share/zoneinfo/" + area))
                if (file.is_regular_file())
                    names_.push_back(area + '/' + file.path().filename().string());
        }
    }
    void findNext() { isKnown(next_++); }
    // Those that the two busy threads are reading.
    bool areLastOnesKnown() const {
        const std::size_t next = next_;
        return isKnown(next + names_.size() - 1) && isKnown(next + names_.size() - 2);
    }

private:
    bool isKnown(std::size_t number) const {
        const auto found = TimeZone::named(names_[number % names_.size()]);
        return found && std::abs(found->offsetAt(1600000000)) <= 15 * 3600;
    }

    std::vector<std::string> names_;
    std::atomic<std::size_t> next_{0};
};

}  // namespace

TEST(TimeZone, IsFoundInAForkedChildWhateverZonesOtherThreadsWereReading) {
    ManyZones zones;
    support::expectChildrenSucceedWhile([&] { zones.findNext(); },
                                        [&] { return zones.areLastOnesKnown(); });
}

TEST(Calendar, TwoThreadsInTwoZonesDoNotDisturbEachOther) {
    const auto work = [](const char* name, const char* expected) {
        for (int i = 0; i < 2000; ++i) {
            const auto text = shown(1264951800, *TimeZone::withAbbreviation(name));
            ASSERT_EQ(text, expected);
        }
    };
    std::jthread japan(work, "JST", "2010-02-01 00:30:00 +0900");
    std::jthread york(work, "EST", "2010-01-31 10:30:00 -0500");
    work("CET", "2010-01-31 16:30:00 +0100");
}
