#include "Measure.h"

#include "support/Processes.h"

#include <filesystem>

namespace soak {

namespace {

namespace fs = std::filesystem;
using support::bytesOf;
using support::numberOf;

std::int64_t entriesOf(const std::string& folder) {
    std::error_code failure;
    std::int64_t count = 0;
    for (fs::directory_iterator at(folder, failure), end; !failure && at != end;
         at.increment(failure))
        ++count;
    return count;
}

}  // namespace

Sample measure(pid_t process, double at) {
    const auto folder = "/proc/" + std::to_string(process);
    const auto memory = bytesOf(folder + "/smaps_rollup");
    Sample sample;
    sample.at = at;
    sample.bytes = 1024 * (numberOf(memory, "Private_Dirty") + numberOf(memory, "Swap"));
    sample.descriptors = entriesOf(folder + "/fd");
    sample.threads = numberOf(bytesOf(folder + "/status"), "Threads");
    return sample;
}

std::int64_t bytesOfFilesIn(const std::string& folder) {
    std::int64_t sum = 0;
    std::error_code failure;
    for (fs::recursive_directory_iterator at(folder, failure), end; !failure && at != end;
         at.increment(failure)) {
        std::error_code gone;
        const auto size = at->is_regular_file(gone) ? fs::file_size(at->path(), gone) : 0;
        if (!gone) sum += static_cast<std::int64_t>(size);
    }
    return sum;
}

}  // namespace soak
