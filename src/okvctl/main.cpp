#include "Tool.h"

#include <cstdio>
#include <exception>

int main(int argc, char** argv) {
    try {
        const auto count = argc > 1 ? static_cast<std::size_t>(argc - 1) : 0;
        return okvctl::runTool({argv + 1, count});
    } catch (const std::exception& error) {
        std::fprintf(stderr, "okvctl: %s\n", error.what());
        return 1;
    }
}
