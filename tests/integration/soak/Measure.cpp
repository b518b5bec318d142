#include "Measure.h"

#include <charconv>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace soak {

namespace {

namespace fs = std::filesystem;

std::string contentOf(const std::string& file) {
    std::ostringstream text;
    text << std::ifstream(file).rdbuf();
    return text.str();
}

std::int64_t entriesOf(const std::string& folder) {
    std::error_code failure;
    std::int64_t count = 0;
    for (fs::directory_iterator at(folder, failure), end; !failure && at != end;
         at.increment(failure))
        ++count;
    return count;
}

}  // namespace

std::int64_t numberOf(std::string_view text, std::string_view name) {
    const auto wanted = "\n" + std::string(name) + ":";
    auto at = text.find(wanted);
    if (at == std::string_view::npos) return 0;
    at = text.find_first_not_of(" \t", at + wanted.size());
    std::int64_t number = 0;
    if (at != std::string_view::npos)
        std::from_chars(text.data() + at, text.data() + text.size(), number);
    return number;
}

Sample measure(pid_t process, double at) {
    const auto folder = "/proc/" + std::to_string(process);
    const auto memory = contentOf(folder + "/smaps_rollup");
    Sample sample;
    sample.at = at;
    sample.bytes = 1024 * (numberOf(memory, "Private_Dirty") + numberOf(memory, "Swap"));
    sample.descriptors = entriesOf(folder + "/fd");
    sample.threads = numberOf(contentOf(folder + "/status"), "Threads");
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
