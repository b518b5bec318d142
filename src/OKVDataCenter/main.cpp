#include "Options.h"
#include "Program.h"

#include <cstdio>

int main(int argumentCount, char* arguments[]) {
    using datacenter::Options;
    const auto options = Options::parse(argumentCount, arguments);
    switch (options.act) {
        case Options::Act::serve:
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
