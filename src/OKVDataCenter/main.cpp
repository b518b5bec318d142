#include "Options.h"
#include "Program.h"
#include "Restore.h"

#include <OKVDataManager/okvCmnUtil.h>
#include <OKVLog/OKVLog.h>
#include <OKVPlatform/process/StandardDescriptors.h>

#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>

namespace {

// Processes of other accounts may not ask where our executable lies and believe the first argument
// when it is a full path: started by any other name, the program starts itself once more.
void startByFullPath(int argumentCount, char* arguments[]) {
    if (argumentCount == 0 || arguments[0][0] == '/') return;
    char path[PATH_MAX] = {};
    if (readlink("/proc/self/exe", path, sizeof path - 1) <= 0) return;
    arguments[0] = path;
    execv(path, arguments);  // where that fails, it serves under the name that it has
}

thread_local bool ranOutOfMemory = false;

[[noreturn]] void noteLackOfMemory() {
    ranOutOfMemory = true;
    throw std::bad_alloc();
}

// Where memory ran out and nobody could go on without it, within a library's function that must not
// throw, too: the server says so and ends, and is started again. Everything else that nobody
// expected leaves a core.
[[noreturn]] void endUnexpectedly() {
    if (!ranOutOfMemory) __gnu_cxx::__verbose_terminate_handler();
    std::fputs("OKVDataCenter: no memory\n", stderr);
    _exit(EXIT_FAILURE);
}

}  // namespace

int main(int argumentCount, char* arguments[]) {
    using datacenter::Options;
    if (!okv::keepStandardDescriptors()) return EXIT_FAILURE;
    std::set_new_handler(noteLackOfMemory);
    std::set_terminate(endUnexpectedly);
    const auto options = Options::parse(argumentCount, arguments);
    switch (options.act) {
        case Options::Act::serve:
            startByFullPath(argumentCount, arguments);
            okv::setLogLevel(okvCmnUtil::logLevel());
            return datacenter::serve(options);
        case Options::Act::restore:
            return datacenter::restore(options);
        case Options::Act::help:
            return std::fputs(datacenter::kUsage, stdout) < 0;
        case Options::Act::version:
            return std::puts("OKVDataCenter " OKV_VERSION) < 0;
        case Options::Act::wrong:
            break;
    }
    std::fprintf(stderr, "OKVDataCenter: %s; see --help\n", options.error.c_str());
    return 2;
}
