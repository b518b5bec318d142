#pragma once

#include "Limits.h"

#include <chrono>
#include <string>

namespace datacenter {

/// The program's command line.
struct Options {
    enum class Act { serve, restore, help, version, wrong };

    Act act = Act::serve;
    std::string error;  ///< what is wrong, in one line
    std::string store;
    std::string runtimeDirectory;  ///< empty: the one that the environment or the build names
    bool foreground = false;
    bool selfService = false;
    std::size_t connectionsPerUid = Limits().connectionsPerUid;
    bool beginAfresh = false;                                      ///< a damaged store is set aside
    std::chrono::seconds backupInterval = std::chrono::hours(24);  ///< 0: no backups

    static Options parse(int argumentCount, char* const arguments[]);
};

extern const char kUsage[];

}  // namespace datacenter
