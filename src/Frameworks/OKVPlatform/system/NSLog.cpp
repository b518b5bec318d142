#include <OKVPlatform/system/LocalTime.h>
#include <OKVPlatform/system/NSLog.h>
#include <OKVPlatform/system/SinkSlot.h>
#include <OKVPlatform/values/Lasting.h>

#include <sys/syscall.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <ctime>

namespace okv {

namespace {

constinit Lasting<SinkSlot<std::string_view>> sink;

std::string timestamp() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm fields{};
    localTime(now.tv_sec, fields);
    std::array<char, 64> text{};
    const auto length = std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &fields);
    std::array<char, 16> fraction{};
    std::snprintf(fraction.data(), fraction.size(), ".%03d",
                  static_cast<int>(now.tv_nsec / 1000000));
    return std::string(text.data(), length) + fraction.data();
}

std::string processTag() {
    const auto thread = static_cast<long>(syscall(SYS_gettid));
    return std::string(program_invocation_short_name) + '[' + std::to_string(getpid()) + ':' +
           std::to_string(thread) + ']';
}

void appendOnOneLine(std::string& line, std::string_view text) {
    if (text.ends_with('\n')) text.remove_suffix(1);
    for (const char c : text) {
        if (c == '\n') {
            line += "\\n";
        } else {
            line += c;
        }
    }
}

}  // namespace

std::string formattedText(const char* format, std::va_list values) {
    std::va_list again;
    va_copy(again, values);
    const int length = std::vsnprintf(nullptr, 0, format, values);
    std::string text = length < 0 ? format : std::string(static_cast<std::size_t>(length), '\0');
    if (length > 0) std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

std::string logLine(std::string_view text) {
    std::string line = timestamp() + ' ' + processTag() + ' ';
    appendOnOneLine(line, text);
    line += '\n';
    return line;
}

void writeLogLine(std::string_view text) {
    const int savedErrno = errno;
    const std::string line = logLine(text);
    while (write(STDERR_FILENO, line.data(), line.size()) < 0 && errno == EINTR) {
    }
    errno = savedErrno;
}

void NSLog(const char* format, ...) {
    const int savedErrno = errno;
    std::va_list values;
    va_start(values, format);
    try {
        const std::string text = formattedText(format, values);
        (*sink)(text);
        writeLogLine(text);
    } catch (const std::bad_alloc&) {
        // Without memory the text is dropped: whoever logs is no worse off for it.
    }
    va_end(values);
    errno = savedErrno;
}

void setNSLogSink(NSLogSink function) {
    sink->set(std::move(function));
}

}  // namespace okv
