#include "DateText.h"

#include <gtest/gtest.h>

using okv::Date;
using okvctl::dateText;
using okvctl::isoText;
using okvctl::parseDate;

namespace {

struct DateRow {
    const char* text;
    double seconds;
};

class DateText : public testing::TestWithParam<DateRow> {};
class ReadDate : public testing::TestWithParam<DateRow> {};
class NoDate : public testing::TestWithParam<const char*> {};

}  // namespace

TEST_P(DateText, IsWrittenSoAndReadsBack) {
    EXPECT_EQ(dateText(Date{GetParam().seconds}), GetParam().text);
    EXPECT_EQ(parseDate(GetParam().text), Date{GetParam().seconds});
}

INSTANTIATE_TEST_SUITE_P(Rows, DateText,
                         testing::Values(DateRow{"1970-01-01T00:00:00Z", 0},
                                         DateRow{"2026-01-31T23:59:59.25Z", 1769903999.25},
                                         DateRow{"2026-11-21T08:23:14.714483Z", 1795249394.714483},
                                         DateRow{"0001-01-01T00:00:00Z", -62135596800.0},
                                         DateRow{"9999-12-31T23:59:59Z", 253402300799.0},
                                         DateRow{"@-0.5", -0.5},
                                         DateRow{"@253402300800", 253402300800.0},
                                         DateRow{"@1e+300", 1e300}, DateRow{"@5e-324", 5e-324},
                                         DateRow{"@inf", 1.0 / 0.0}));

TEST_P(ReadDate, IsReadSo) {
    EXPECT_EQ(parseDate(GetParam().text), Date{GetParam().seconds});
}

INSTANTIATE_TEST_SUITE_P(Rows, ReadDate,
                         testing::Values(DateRow{"2026-02-01T08:59:59+09:00", 1769903999},
                                         DateRow{"2026-01-31T18:29:59-05:30", 1769903999},
                                         DateRow{"1969-12-31T23:59:59.5Z", -0.5}, DateRow{"@0", 0},
                                         DateRow{"@1.5", 1.5},
                                         DateRow{"2026-01-31T23:59:59.250Z", 1769903999.25}));

TEST_P(NoDate, IsRefused) {
    EXPECT_EQ(parseDate(GetParam()), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(Rows, NoDate,
                         testing::Values("", "@", "@x", "2026-01-31", "2026-01-31T23:59:59",
                                         "2026-02-29T00:00:00Z", "2026-01-31T24:00:00Z",
                                         "2026-01-31T23:59:59.Z", "2026-01-31T23:59:59Zx",
                                         "2026-01-31T23:59:59+9:00", "2026-01-31T23:59:59+24:00",
                                         "2026-01-31 23:59:59Z", "0000-01-01T00:00:00Z",
                                         "2026-01-31T23:59:59.0000000000000000000000000000001Z"));

TEST(DateText, HasNoIsoFormBeforeTheYear1OrForWhatIsNoNumber) {
    EXPECT_EQ(isoText(Date{-62135596801.0}), std::nullopt);
    EXPECT_EQ(isoText(Date{0.0 / 0.0}), std::nullopt);
}
