#include "Memory.h"

#include <fstream>
#include <stdexcept>
#include <string>

namespace bench {

double privateBytes(int pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/smaps_rollup");
    double kilobytes = -1;
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("Private_", 0) != 0 && line.rfind("Swap:", 0) != 0) continue;
        if (kilobytes < 0) kilobytes = 0;
        kilobytes += std::stod(line.substr(line.find(':') + 1));
    }
    if (kilobytes < 0) throw std::runtime_error("no memory figures of " + std::to_string(pid));
    return kilobytes * 1024;
}

}  // namespace bench
