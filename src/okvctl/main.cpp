#include "Tool.h"

#include <OKVPlatform/process/StandardDescriptors.h>

#include <cstdio>
#include <exception>

int main(int argc, char** argv) {
    if (!okv::keepStandardDescriptors()) return 1;
    try {
        const auto count = argc > 1 ? static_cast<std::size_t>(argc - 1) : 0;
        return okvctl::runTool({argv + 1, count});
    } catch (const std::exception& error) {
        std::fprintf(stderr, "okvctl: %s\n", error.what());
        return 1;
    }
}
