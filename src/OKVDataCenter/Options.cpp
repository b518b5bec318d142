#include "Options.h"

#include <OKVPlatform/values/NumberText.h>

#include <getopt.h>

#include <cstdint>
#include <optional>
#include <string_view>

namespace datacenter {

const char kUsage[] =
    "usage: OKVDataCenter --store FILE [--runtime-dir DIR] [--foreground] [--self-service]\n"
    "                     [--connections-per-uid N] [--begin-afresh]\n"
    "                     [--backup-interval SECONDS]\n"
    "       OKVDataCenter --store FILE --restore\n"
    "\n"
    "The data server: keeps every setting of the suite and serves it under a registered name.\n"
    "\n"
    "  --store FILE       where the settings are kept; made when missing, its folder must exist\n"
    "  --runtime-dir DIR  where the registered names live; made when missing\n"
    "  --foreground       log to standard error, for a terminal, instead of to the journal\n"
    "  --self-service     accounts may change the settings of their own user\n"
    "  --connections-per-uid N\n"
    "                     how many connections one account may hold, 1 to 1024; 128 unless told.\n"
    "                     root and the server's own account are not counted\n"
    "  --begin-afresh     when the store is damaged: set it aside as FILE.damaged-TIME and begin\n"
    "                     with an empty one; a store that is not damaged is not touched\n"
    "  --backup-interval SECONDS\n"
    "                     how long after a backup the next one is made (86400, a day); 0: none "
    "are\n"
    "                     made. Backups are in FILE.backups, the newest 7 are kept\n"
    "  --restore          put the newest good backup in the place of the store, set the files "
    "that\n"
    "                     were there aside as FILE.replaced-TIME, and end; refused while a server\n"
    "                     has the store open\n"
    "  --help, --version  tell this, or the version, and end\n"
    "\n"
    "It stays in the foreground in any case. When it serves it tells the service manager and\n"
    "writes the line \"ready\". SIGHUP reads the store again; SIGTERM and SIGINT end it.\n";

namespace {

enum : int {
    kStore = 1000,
    kRuntimeDirectory,
    kForeground,
    kSelfService,
    kConnectionsPerUid,
    kBeginAfresh,
    kBackupInterval,
    kRestore,
    kHelp,
    kVersion
};

const option kOptions[] = {
    {"store", required_argument, nullptr, kStore},
    {"runtime-dir", required_argument, nullptr, kRuntimeDirectory},
    {"foreground", no_argument, nullptr, kForeground},
    {"self-service", no_argument, nullptr, kSelfService},
    {"connections-per-uid", required_argument, nullptr, kConnectionsPerUid},
    {"begin-afresh", no_argument, nullptr, kBeginAfresh},
    {"backup-interval", required_argument, nullptr, kBackupInterval},
    {"restore", no_argument, nullptr, kRestore},
    {"help", no_argument, nullptr, kHelp},
    {"version", no_argument, nullptr, kVersion},
    {nullptr, 0, nullptr, 0},
};

Options wrong(std::string error) {
    Options options;
    options.act = Options::Act::wrong;
    options.error = std::move(error);
    return options;
}

void takeConnections(Options& options) {
    const auto count = okv::decimalIn<decltype(options.connectionsPerUid)>(optarg);
    if (count && *count >= 1 && *count <= Limits().connections) {
        options.connectionsPerUid = *count;
    } else {
        options = wrong("--connections-per-uid is a number of 1 to 1024");
    }
}

// None for what is no number of seconds, or more than ten years.
std::optional<std::chrono::seconds> secondsIn(std::string_view text) {
    constexpr std::int64_t kTenYears = 10LL * 365 * 24 * 60 * 60;
    const auto seconds = okv::decimalIn<std::int64_t>(text);
    if (!seconds || *seconds < 0 || *seconds > kTenYears) return std::nullopt;
    return std::chrono::seconds(*seconds);
}

void takeInterval(Options& options) {
    if (const auto interval = secondsIn(optarg)) {
        options.backupInterval = *interval;
    } else {
        options = wrong("--backup-interval needs a number of seconds, not " + std::string(optarg));
    }
}

bool take(Options& options, int option) {
    switch (option) {
        case kStore:
            options.store = optarg;
            return true;
        case kRuntimeDirectory:
            options.runtimeDirectory = optarg;
            return true;
        case kForeground:
            return options.foreground = true;
        case kSelfService:
            return options.selfService = true;
        case kConnectionsPerUid:
            takeConnections(options);
            return true;
        case kBeginAfresh:
            return options.beginAfresh = true;
        case kBackupInterval:
            takeInterval(options);
            return true;
        case kRestore:
            options.act = Options::Act::restore;
            return true;
        case kHelp:
        case 'h':
            options.act = Options::Act::help;
            return true;
        case kVersion:
            options.act = Options::Act::version;
            return true;
        default:
            return false;
    }
}

}  // namespace

Options Options::parse(int argumentCount, char* const arguments[]) {
    Options options;
    optind = 0;  // from the start, at every call
    for (;;) {
        const int option = getopt_long(argumentCount, arguments, "+:h", kOptions, nullptr);
        if (option == -1) break;
        if (option == ':') return wrong(std::string(arguments[optind - 1]) + " needs a value");
        if (!take(options, option))
            return wrong(std::string(arguments[optind - 1]) + " is no option");
        if (options.act != Act::serve && options.act != Act::restore) return options;
    }
    if (optind < argumentCount)
        return wrong(std::string(arguments[optind]) + " is more than is asked for");
    if (options.store.empty()) return wrong("--store FILE is needed: where the settings are kept");
    if (options.act == Act::restore && options.beginAfresh)
        return wrong("--restore and --begin-afresh exclude each other");
    return options;
}

}  // namespace datacenter
