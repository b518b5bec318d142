// Compiled as C++17: the library's header for such rules names what C++20's <chrono> names too.
#include <OKVPlatform/system/LaterRule.h>

#include <date/ptz.h>
#include <chrono>
#include <exception>

namespace okv {

std::optional<std::int64_t> offsetByRule(const std::string& rule, std::int64_t instant) {
    try {
        const Posix::time_zone zone(rule);
        const date::sys_seconds time{std::chrono::seconds{instant}};
        return zone.get_info(time).offset.count();
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

}  // namespace okv
