#pragma once

// Which sanitizers this was compiled for: each compiler tells it in its own way.

#if defined(__SANITIZE_ADDRESS__)
#define OKV_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define OKV_ADDRESS_SANITIZER 1
#endif
#endif

#if defined(__SANITIZE_THREAD__)
#define OKV_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define OKV_THREAD_SANITIZER 1
#endif
#endif

#include <string_view>

namespace support {

#if defined(OKV_ADDRESS_SANITIZER)
inline constexpr bool kIsAddressSanitized = true;
#else
inline constexpr bool kIsAddressSanitized = false;
#endif

#if defined(OKV_THREAD_SANITIZER)
inline constexpr bool kIsThreadSanitized = true;
#else
inline constexpr bool kIsThreadSanitized = false;
#endif

inline constexpr bool kIsSanitized = kIsAddressSanitized || kIsThreadSanitized;

/// Whether a sanitizer found something in a process that wrote this to its standard error. By its
/// exit code, which is 1, it cannot be told from one that failed as it should.
inline bool isReport(std::string_view errors) {
    for (const std::string_view sign : {"Sanitizer: ", ": runtime error: "}) {
        if (errors.find(sign) != std::string_view::npos) return true;
    }
    return false;
}

}  // namespace support
