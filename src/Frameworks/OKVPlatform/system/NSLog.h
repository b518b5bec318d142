#pragma once

#include <OKVPlatform/Export.h>

#include <cstdarg>
#include <functional>
#include <string>
#include <string_view>

namespace okv {

/// Writes one line to standard error: date, time with milliseconds, process name, [pid:tid], text.
///
/// `format` and its values are printf's. A line feed inside the text is written as the two
/// characters `\n`, so that one call is always one line; one at the end is dropped. The line goes
/// out in one write(2): lines of several threads or processes do not mix. Never fails, keeps
/// errno; without memory the line is dropped. Any thread.
OKV_EXPORT void NSLog(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// What a sink is given: the text alone, as it was formatted.
using NSLogSink = std::function<void(std::string_view text)>;

/// Sets the process-wide sink that sees every `NSLog` beside standard error; an empty one ends it.
/// For tests. The sink is called by the thread that logs, under no lock, possibly by several at
/// once; a call that is under way in another thread may still end after this has returned.
OKV_EXPORT void setNSLogSink(NSLogSink sink);

/// The text that printf's `format` makes of `values`; the bare format when it is not valid.
OKV_EXPORT std::string formattedText(const char* format, std::va_list values)
    __attribute__((format(printf, 1, 0)));

/// The line that `NSLog` writes for `text`, line feed included.
OKV_EXPORT std::string logLine(std::string_view text);

/// Writes `logLine(text)` to standard error in one write(2); keeps errno.
OKV_EXPORT void writeLogLine(std::string_view text);

}  // namespace okv
