#pragma once

#include <OKVPlatform/Export.h>

#include <functional>
#include <string_view>

/// Logs one text of the suite, printf-style, when `level` is not above the level in force.
///
/// The higher the level, the more detailed the text: 10 is everyday work, 30 is detail. The text
/// goes to the system's journal when there is one, else to standard error in the form of
/// `okv::NSLog`. The journal's priority is "err" for levels up to 0, "notice" for 1 to 9, "info"
/// for 10 to 19 and "debug" from 20 on; the level itself is kept in the field OKV_LEVEL.
///
/// Never fails, keeps errno; without memory the text is dropped. Any thread.
extern "C" OKV_EXPORT void OKVSystemLog(int level, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

namespace okv {

/// The level in force when a process sets none.
inline constexpr int kDefaultLogLevel = 10;

/// Sets the process's level in force: texts of a higher level are not written. Any thread.
OKV_EXPORT void setLogLevel(int level) noexcept;
/// The process's level in force. Any thread.
OKV_EXPORT int logLevel() noexcept;

/// What a sink is given: the level and the text alone, as it was formatted.
using LogSink = std::function<void(int level, std::string_view text)>;

/// Sets the process-wide sink that sees every `OKVSystemLog`, also those above the level in force,
/// beside what is written; an empty one ends it. For tests. The sink is called by the thread that
/// logs, under no lock, possibly by several at once.
OKV_EXPORT void setLogSink(LogSink sink);

/// The journal's priority (syslog's 0 to 7) for a level, as told at `OKVSystemLog`.
OKV_EXPORT int journalPriority(int level) noexcept;

}  // namespace okv
