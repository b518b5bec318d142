// Any eight bytes as an instant, any bytes as texts. The local zone has days without a midnight.
#include "Require.h"

#include <OKVDataManager/okvCmnUtil.h>

#include <cmath>
#include <cstdlib>
#include <cstring>

namespace {

using fuzz::require;

// A day begins at or before each of its instants, and not more than 25 hours before it.
void checkDayOf(okv::Date date) {
    const std::string day = okvCmnUtil::nowDateOnly_baseDate("", date);
    if (day == "(null)") return;
    const auto beginning = okvCmnUtil::createDateFromyyyymmdd(day);
    require(beginning.has_value());
    const double since = date.secondsSince1970 - beginning->secondsSince1970;
    require(since >= 0 && since < 25 * 3600);
    require(okvCmnUtil::nowDateOnly_baseDate("", beginning) == day);
}

void checkInstant(double seconds) {
    const auto text = okvCmnUtil::descriptionWithTimeIntervalSince1970(seconds);
    require(!text || (text->size() == 19 && std::isfinite(seconds)));
    require(okvCmnUtil::nowDate_baseDate("JST", okv::Date{seconds}) == text.value_or("(null)"));
    require(okvCmnUtil::baseDateJST(okv::Date{seconds}).has_value() == text.has_value());
    checkDayOf({seconds});
}

void checkText(std::string_view text) {
    const auto month = okvCmnUtil::createDateFromyyyymm(text);
    const auto day = okvCmnUtil::createDateFromyyyymmdd(text);
    require(!(month && day));
    if (month) require(std::isfinite(month->secondsSince1970));
    okvCmnUtil::nowTime_baseDate(text, okv::Date{0});
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("TZ", "America/Sao_Paulo", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const std::string text(bytes, bytes + size);
    checkText(text);
    checkText(text.substr(0, 6));
    checkText(text.substr(0, 8));
    if (size < sizeof(double)) return 0;
    double seconds = 0;
    std::memcpy(&seconds, bytes, sizeof seconds);
    checkInstant(seconds);
    checkInstant(std::fmod(seconds, 2e11));
    return 0;
}
