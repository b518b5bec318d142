#include <OKVPlatform/values/WriteAll.h>

#include <unistd.h>

#include <cerrno>

namespace okv {

bool writeAll(int descriptor, std::string_view bytes) noexcept {
    while (!bytes.empty()) {
        const auto count = ::write(descriptor, bytes.data(), bytes.size());
        if (count == 0) errno = ENOSPC;
        if (count == 0 || (count < 0 && errno != EINTR)) return false;
        if (count > 0) bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

}  // namespace okv
