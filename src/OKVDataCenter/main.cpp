#include "Options.h"
#include "Program.h"

#include <OKVDataManager/okvCmnUtil.h>
#include <OKVLog/OKVLog.h>

#include <unistd.h>

#include <climits>
#include <cstdio>

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

}  // namespace

int main(int argumentCount, char* arguments[]) {
    using datacenter::Options;
    const auto options = Options::parse(argumentCount, arguments);
    switch (options.act) {
        case Options::Act::serve:
            startByFullPath(argumentCount, arguments);
            okv::setLogLevel(okvCmnUtil::logLevel());
            return datacenter::serve(options);
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
