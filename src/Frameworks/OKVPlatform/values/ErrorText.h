#pragma once

#include <cstring>
#include <string>

namespace okv {

/// What the system calls an error (a value of errno), in English whatever the application's
/// language is. Unlike `strerror` it takes none of the C library's locks, so that a forked child
/// can ask, too. Any thread.
inline std::string errorText(int error) {
    const char* const text = strerrordesc_np(error);
    return text != nullptr ? text : "error " + std::to_string(error);
}

}  // namespace okv
