#include "Options.h"

#include <getopt.h>

namespace datacenter {

const char kUsage[] =
    "usage: OKVDataCenter --store FILE [--runtime-dir DIR] [--foreground] [--self-service]\n"
    "                     [--begin-afresh]\n"
    "\n"
    "The data server: keeps every setting of the suite and serves it under a registered name.\n"
    "\n"
    "  --store FILE       where the settings are kept; made when missing, its folder must exist\n"
    "  --runtime-dir DIR  where the registered names live; made when missing\n"
    "  --foreground       log to standard error, for a terminal, instead of to the journal\n"
    "  --self-service     accounts may change the settings of their own user\n"
    "  --begin-afresh     when the store is damaged: set it aside as FILE.damaged-TIME and begin\n"
    "                     with an empty one; a store that is not damaged is not touched\n"
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
    kBeginAfresh,
    kHelp,
    kVersion
};

const option kOptions[] = {
    {"store", required_argument, nullptr, kStore},
    {"runtime-dir", required_argument, nullptr, kRuntimeDirectory},
    {"foreground", no_argument, nullptr, kForeground},
    {"self-service", no_argument, nullptr, kSelfService},
    {"begin-afresh", no_argument, nullptr, kBeginAfresh},
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
        case kBeginAfresh:
            return options.beginAfresh = true;
        case kHelp:
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
        const int option = getopt_long(argumentCount, arguments, "+:", kOptions, nullptr);
        if (option == -1) break;
        if (option == ':') return wrong(std::string(arguments[optind - 1]) + " needs a value");
        if (!take(options, option))
            return wrong(std::string(arguments[optind - 1]) + " is no option");
        if (options.act != Act::serve) return options;
    }
    if (optind < argumentCount)
        return wrong(std::string(arguments[optind]) + " is more than is asked for");
    if (options.store.empty()) return wrong("--store FILE is needed: where the settings are kept");
    return options;
}

}  // namespace datacenter
