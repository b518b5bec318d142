#pragma once

#include <OKVPlatform/Export.h>

#include <sys/uio.h>
#include <string>

namespace okv {

/// sd_journal_sendv: sends fields "NAME=value"; negative when it failed.
using SendToJournal = int (*)(const iovec* fields, int count);

/// Where the journal listens, and how its sending function is found; null when it is not.
struct Journal {
    const char* socketPath;
    SendToJournal (*find)();
};

/// Writes to the journal, or to standard error when it is not there or fails. Not installed: the
/// suite's tests bring a journal of their own.
OKV_EXPORT void writeLogText(const Journal& journal, int level, const std::string& text);

}  // namespace okv
