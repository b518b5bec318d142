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

}  // namespace support
