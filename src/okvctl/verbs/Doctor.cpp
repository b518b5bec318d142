#include "../Operands.h"
#include "../Printing.h"
#include "Verbs.h"

#include <OKVPlatform/ipc/RuntimeFolder.h>
#include <OKVPlatform/process/ProcessManager.h>

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

namespace okvctl {

namespace {

using okv::Dictionary;
using okv::Value;

constexpr char kAdministrators[] = "okvadmin";
constexpr std::int64_t kManyWaiting = 1000;

enum class Health { good, doubtful, bad };

/// What one look has found, and what is to be done about it.
struct Finding {
    std::string_view check;
    Health health;
    std::string text;
    std::string remedy;
};

/// What the findings before it have brought to light.
struct Examination {
    Server& server;
    ExitCode code = ExitCode::done;
    std::vector<std::int64_t> processes{};
    std::optional<Dictionary> status{};
};

std::string joined(const std::vector<std::int64_t>& pids) {
    std::string text;
    for (const auto pid : pids) text.append(text.empty() ? "" : ", ").append(std::to_string(pid));
    return text;
}

Finding runtimeFolder(Examination&) {
    const auto folder = okv::runtimeDirectory();
    struct stat status {};
    if (stat(folder.c_str(), &status) != 0)
        return {"runtime folder", Health::bad, folder + " does not exist",
                "start OKVDataCenter, which makes it, or name another one with --runtime-dir"};
    std::string why;
    if (okv::openRuntimeFolder(folder, false, why).get() < 0)
        return {"runtime folder", Health::bad, why,
                "let root or the service's account own it, and nobody else write to it"};
    return {"runtime folder",
            Health::good,
            folder + ", owned by uid " + std::to_string(status.st_uid),
            {}};
}

Finding process(Examination& examination) {
    okv::ProcessManager manager;
    for (okv::ProcessSerialNumber psn; manager.GetNextProcess(&psn) == okv::noErr;) {
        const auto record = manager.ProcessInformationCopyDictionary(
            &psn, okv::kProcessDictionaryIncludeAllInformationMask);
        if (record && (*record)["CFBundleName"] == Value(kOKVDataServerBundleName) &&
            (*record)["CFBundleIdentifier"] == Value(kOKVDataServerBundleIdentifier))
            examination.processes.push_back((*record)["pid"].longLongValue());
    }
    if (examination.processes.empty())
        return {"process", Health::doubtful, "no OKVDataCenter is in the list of applications",
                "start it from its bundle, OKVDataCenter.app: clients look for it there"};
    return {"process",
            Health::good,
            "OKVDataCenter runs as process " + joined(examination.processes),
            {}};
}

std::string remedyFor(const Examination& examination) {
    if (examination.code == ExitCode::timeout)
        return "it hangs or was stopped: look into its log; restart it";
    if (!examination.server.isAbsent())
        return "let root, the service's account or your own serve, in a folder that you may enter, "
               "and close connections that are too many";
    if (examination.processes.empty()) return "start OKVDataCenter";
    return "process " + joined(examination.processes) +
           " serves another folder or hangs: compare its --runtime-dir";
}

Finding registeredName(Examination& examination) {
    try {
        examination.server.connect();
    } catch (const ToolError& error) {
        examination.code = error.code();
        return {"registered name", Health::bad, error.what(), remedyFor(examination)};
    }
    return {"registered name",
            Health::good,
            std::string(kOKVDataServerName) + " is served by process " +
                std::to_string(examination.server.peer()->pid),
            {}};
}

bool isAdministrator(const okv::PeerIdentity& server) {
    if (geteuid() == 0 || geteuid() == server.uid) return true;
    const auto* const group = getgrnam(kAdministrators);
    if (group == nullptr) return false;
    if (getegid() == group->gr_gid) return true;
    std::vector<gid_t> groups(static_cast<std::size_t>(std::max(getgroups(0, nullptr), 0)));
    const auto count = getgroups(static_cast<int>(groups.size()), groups.data());
    groups.resize(static_cast<std::size_t>(std::max(count, 0)));
    return std::find(groups.begin(), groups.end(), group->gr_gid) != groups.end();
}

Finding rights(Examination& examination) {
    const auto account = "uid " + std::to_string(geteuid());
    const auto* server = examination.server.peer();
    if (server == nullptr)
        return {"rights", Health::doubtful, account + ": unknown without a data server", {}};
    if (isAdministrator(*server))
        return {"rights", Health::good, account + " may read and change everything", {}};
    const bool own = examination.status && (*examination.status)["self_service"].boolValue();
    return {"rights", Health::doubtful,
            account + (own ? " may read, and change its own user" : " may only read"),
            std::string("to change more: root, or a member of the group ") + kAdministrators};
}

Finding store(Examination& examination) {
    if (examination.server.peer() == nullptr)
        return {"store", Health::doubtful, "unknown without a data server", {}};
    try {
        const auto answer = examination.server.ask<&OKVDataAdmin_protocol::serverStatusPT>("");
        examination.status = dictionaryIn(answer);
    } catch (const ToolError& error) {
        examination.code = error.code();
        return {"store", Health::bad, error.what(), "look into the data server's log; restart it"};
    }
    const auto& status = *examination.status;
    const auto text = "revision " + cellText(status["revision"]) + ", " +
                      cellText(status["settings"]) + " settings, " + cellText(status["users"]) +
                      " users, " + cellText(status["waiting"]) + " changes waiting";
    const auto* backup = status["backup"].getIf<Dictionary>();
    if (backup != nullptr && !(*backup)["failure"].isMissing())
        return {"store", Health::doubtful,
                text + "; the last backup failed: " + cellText((*backup)["failure"]),
                "make room, or correct the rights, beside the store"};
    if (status["waiting"].longLongValue() >= kManyWaiting)
        return {"store", Health::doubtful, text, "the disk is slow or full: look at it"};
    return {"store", Health::good, text, {}};
}

Finding logLevel(Examination& examination) {
    if (!examination.status)
        return {"log level", Health::doubtful, "unknown without a data server", {}};
    return {"log level", Health::good, cellText((*examination.status)["log_level"]), {}};
}

Finding versions(Examination& examination) {
    const Value own(OKVCTL_VERSION);
    if (!examination.status)
        return {
            "versions", Health::doubtful, "okvctl " + cellText(own) + ", data server unknown", {}};
    const auto& served = (*examination.status)["version"];
    const auto text = "okvctl " + cellText(own) + ", data server " + cellText(served);
    if (served == own) return {"versions", Health::good, text, {}};
    return {"versions", Health::doubtful, text,
            "restart the data server if it was upgraded, or upgrade the older one"};
}

// In this order: some build on what others have found.
constexpr Finding (*kChecks[])(Examination&) = {runtimeFolder, process,  registeredName, store,
                                                rights,        logLevel, versions};

Cell healthCell(Health health) {
    constexpr std::string_view words[] = {"ok", "doubtful", "bad"};
    constexpr Style styles[] = {Style::good, Style::warning, Style::bad};
    const auto i = static_cast<std::size_t>(health);
    return {words[i], styles[i]};
}

ExitCode runDoctor(Call& call) {
    expectOperands(call, 0, 0, "");
    expectFormats(call, kTableFormats);
    Examination examination{call.server};
    Table table({"CHECK", "RESULT", "FOUND", "WHAT TO DO"}, {"check", "checks"});
    okv::Array checks;
    bool isBad = false;
    for (const auto check : kChecks) {
        const auto found = check(examination);
        const auto health = healthCell(found.health);
        isBad = isBad || found.health == Health::bad;
        table.add(
            {found.check, health, cellText(found.text), found.remedy.empty() ? "-" : found.remedy});
        checks.emplace_back(Dictionary{{"check", found.check},
                                       {"result", health.text},
                                       {"found", found.text},
                                       {"remedy", found.remedy}});
    }
    print(call, Dictionary{{"healthy", !isBad}, {"checks", std::move(checks)}}, table);
    if (examination.code != ExitCode::done) return examination.code;
    return isBad ? ExitCode::failure : ExitCode::done;
}

}  // namespace

const Verb kDoctor{
    "doctor",
    "",
    "look for what is wrong, and say what to do",
    "A line each, with what was found and what helps: the runtime folder, the data server as a\n"
    "process and by its registered name, its store, the caller's rights, the log level in force,\n"
    "versions. It ends with 8 where the data server is not running or cannot be used, 3 where it\n"
    "does not answer, 1 where something else is bad. With --json {\"healthy\", \"checks\":\n"
    "[{\"check\", \"result\", \"found\", \"remedy\"}]}.\n",
    kNoOptions,
    runDoctor,
};

}  // namespace okvctl
