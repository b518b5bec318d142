#include "../Operands.h"
#include "../Printing.h"
#include "Verbs.h"

#include <OKVDataManager/okvCmnUtil.h>
#include <OKVPlatform/process/QuitEvent.h>
#include <OKVPlatform/values/PropertyListScalars.h>

#include <cerrno>
#include <csignal>

namespace okvctl {

namespace {

// Process ids that no application has: 0 and negative ones mean groups, 1 is the system itself.
constexpr std::int64_t kFirstApplication = 2;

std::int32_t processOf(std::string_view text) {
    const auto number = okv::parseInteger(text);
    if (number && *number >= kFirstApplication && *number <= INT32_MAX)
        return static_cast<std::int32_t>(*number);
    throwUsage("a PID is a number from 2 on, not '" + std::string(text) + "'");
}

void expectProcess(std::int32_t pid) {
    if (kill(pid, 0) != 0 && errno == ESRCH)
        throw ToolError(ExitCode::failure,
                        "there is no process " + std::to_string(pid) + "; see okvctl ps");
}

ExitCode sendSignal(Call& call, std::int32_t pid) {
    if (!okvCmnUtil::quitProcesss(pid))
        throw ToolError(ExitCode::refused,
                        "process " + std::to_string(pid) + " may not be signalled by this account");
    confirm(call, "quit", okv::Dictionary{{"pid", pid}, {"by", "signal"}});
    return ExitCode::done;
}

// Needs no data server.
ExitCode runQuit(Call& call) {
    expectOperands(call, 1, 1, "PID");
    expectFormats(call, kConfirmFormats);
    const auto pid = processOf(call.operands()[0]);
    expectProcess(pid);
    // By its serial number: `sendQuitAppleEventForPid` calls a process that it cannot look up one
    // that has quit.
    const okv::ProcessSerialNumber process{0, static_cast<std::uint32_t>(pid)};
    const auto status = okvCmnUtil::sendQuitAppleEvent(&process);
    if (status == okv::procNotFound) return sendSignal(call, pid);
    if (status == okv::tmfoErr)
        throw ToolError(ExitCode::failure, "process " + std::to_string(pid) +
                                               " was not asked to quit: no descriptors left");
    if (status != okv::noErr)
        throw ToolError(ExitCode::failure, "process " + std::to_string(pid) +
                                               " does not quit: it answered " +
                                               std::to_string(status));
    confirm(call, "quit", okv::Dictionary{{"pid", pid}, {"by", "event"}});
    return ExitCode::done;
}

}  // namespace

const Verb kQuit{
    "quit",
    "PID",
    "ask an application to quit",
    "An application that listens for the request to quit gets it, and may refuse; any other\n"
    "process gets SIGTERM. Does not wait for its end. Needs no data server.\n",
    kNoOptions,
    runQuit,
};

}  // namespace okvctl
