#pragma once

#include <OKVPlatform/Export.h>

#include <filesystem>
#include <optional>
#include <string>

namespace okv::testing {

/// A private runtime folder for one test: registered names and notices of other processes stay
/// away. The process's environment points to it while it lives, and then to where it did before;
/// the folder goes with it.
class OKV_EXPORT RuntimeFolder {
public:
    /// Makes the folder below the system's temporary one. Throws std::system_error. Other threads
    /// must not read the environment meanwhile.
    RuntimeFolder();
    RuntimeFolder(const RuntimeFolder&) = delete;
    RuntimeFolder& operator=(const RuntimeFolder&) = delete;
    ~RuntimeFolder();

    /// Where it lies.
    const std::filesystem::path& path() const noexcept { return path_; }

private:
    std::filesystem::path path_;
    std::optional<std::string> before_;
};

}  // namespace okv::testing
