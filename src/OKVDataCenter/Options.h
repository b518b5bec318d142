#pragma once

#include <string>

namespace datacenter {

/// The program's command line.
struct Options {
    enum class Act { serve, help, version, wrong };

    Act act = Act::serve;
    std::string error;  ///< what is wrong, in one line
    std::string store;
    std::string runtimeDirectory;  ///< empty: the one that the environment or the build names
    bool foreground = false;
    bool selfService = false;
    bool beginAfresh = false;  ///< a damaged store is set aside

    static Options parse(int argumentCount, char* const arguments[]);
};

extern const char kUsage[];

}  // namespace datacenter
