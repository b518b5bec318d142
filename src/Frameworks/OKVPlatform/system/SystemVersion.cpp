#include <OKVPlatform/system/SystemVersion.h>

#include <sys/utsname.h>
#include <algorithm>
#include <atomic>
#include <charconv>

namespace okv {

namespace {

constexpr std::uint32_t kLargestMajor = 0xffff;
constexpr std::uint32_t kLargestPart = 255;

// Takes the number at the front and one dot behind it away; none when there is no number.
std::optional<std::uint32_t> takeNumber(std::string_view& text, std::uint32_t largest) {
    std::uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error == std::errc::invalid_argument) return std::nullopt;
    if (error == std::errc::result_out_of_range) number = largest;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    if (text.starts_with('.')) {
        text.remove_prefix(1);
    } else {
        text = {};
    }
    return std::min(number, largest);
}

std::optional<std::uint32_t> kernelVersion() {
    utsname names{};
    if (uname(&names) != 0) return std::nullopt;
    return systemVersionOf(names.release);
}

std::atomic<SystemVersionQuery> currentQuery{kernelVersion};

}  // namespace

std::optional<std::uint32_t> systemVersionOf(std::string_view release) {
    const auto major = takeNumber(release, kLargestMajor);
    if (!major) return std::nullopt;
    // A minor number above 255 would run into the major one.
    const auto minor = takeNumber(release, kLargestPart).value_or(0);
    const auto patch = takeNumber(release, kLargestPart).value_or(0);
    return (*major << 16) + (minor << 8) + patch;
}

std::optional<std::uint32_t> systemVersion() {
    return currentQuery.load()();
}

void setSystemVersionQuery(SystemVersionQuery query) noexcept {
    currentQuery.store(query == nullptr ? kernelVersion : query);
}

}  // namespace okv
