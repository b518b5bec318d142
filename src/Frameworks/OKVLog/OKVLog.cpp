#include <OKVLog/Journal.h>
#include <OKVLog/OKVLog.h>
#include <OKVPlatform/system/NSLog.h>
#include <OKVPlatform/system/SinkSlot.h>
#include <OKVPlatform/values/ForkGuard.h>
#include <OKVPlatform/values/Lasting.h>

#include <dlfcn.h>
#include <sys/syslog.h>
#include <unistd.h>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <memory>
#include <mutex>
#include <new>
#include <string>

namespace {

std::atomic<int> levelInForce{okv::kDefaultLogLevel};

constinit okv::Lasting<okv::SinkSlot<int, std::string_view>> sink;

okv::SendToJournal openJournalLibrary() {
    void* const library = dlopen("libsystemd.so.0", RTLD_LAZY | RTLD_LOCAL);
    if (library == nullptr) return nullptr;
    return reinterpret_cast<okv::SendToJournal>(dlsym(library, "sd_journal_sendv"));
}

// The journal's library is loaded by the first text that is written: linked, it would nearly
// double the start time of every process, also of those that never log. A fork waits meanwhile:
// its child would find the half of a library. (It does not wait for the loader's own lock.)
okv::SendToJournal journalFunction() {
    static constinit okv::OnDemand<okv::ForkMutex> loading;
    static constinit okv::OnDemand<okv::SendToJournal> function;
    return function.get([] {
        const std::lock_guard lock(loading.get());
        return std::make_unique<okv::SendToJournal>(openJournalLibrary());
    });
}

iovec field(std::string& text) {
    return {text.data(), text.size()};
}

bool sent(okv::SendToJournal send, int level, const std::string& text) {
    std::string message = "MESSAGE=" + text;
    std::string priority = "PRIORITY=" + std::to_string(okv::journalPriority(level));
    std::string ownLevel = "OKV_LEVEL=" + std::to_string(level);
    std::string name = std::string("SYSLOG_IDENTIFIER=") + program_invocation_short_name;
    const std::array fields{field(message), field(priority), field(ownLevel), field(name)};
    return send(fields.data(), static_cast<int>(fields.size())) >= 0;
}

// The library calls a missing journal a success, so its socket is looked at first.
bool wroteToJournal(const okv::Journal& journal, int level, const std::string& text) {
    if (access(journal.socketPath, W_OK) != 0) return false;
    const auto send = journal.find();
    return send != nullptr && sent(send, level, text);
}

void log(int level, const std::string& text) {
    constexpr okv::Journal kSystemJournal{"/run/systemd/journal/socket", journalFunction};
    (*sink)(level, text);
    if (level <= okv::logLevel()) okv::writeLogText(kSystemJournal, level, text);
}

}  // namespace

void okv::writeLogText(const Journal& journal, int level, const std::string& text) {
    if (!wroteToJournal(journal, level, text)) writeLogLine(text);
}

void OKVSystemLog(int level, const char* format, ...) {
    if (level > okv::logLevel() && !sink->isSet()) return;
    const int savedErrno = errno;
    std::va_list values;
    va_start(values, format);
    try {
        log(level, okv::formattedText(format, values));
    } catch (const std::bad_alloc&) {
        // Without memory the text is dropped: whoever logs is no worse off for it.
    }
    va_end(values);
    errno = savedErrno;
}

namespace okv {

void setLogLevel(int level) noexcept {
    levelInForce.store(level, std::memory_order_relaxed);
}

int logLevel() noexcept {
    return levelInForce.load(std::memory_order_relaxed);
}

void setLogSink(LogSink function) {
    sink->set(std::move(function));
}

int journalPriority(int level) noexcept {
    if (level <= 0) return LOG_ERR;
    if (level < 10) return LOG_NOTICE;
    return level < 20 ? LOG_INFO : LOG_DEBUG;
}

}  // namespace okv
