#pragma once

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

/// What tests and benchmarks do with files: read and write whole ones, in folders of their own.
namespace support {

/// All that is in a file; nothing when it cannot be read.
inline std::string bytesOf(const std::filesystem::path& file) {
    std::ostringstream bytes;
    bytes << std::ifstream(file, std::ios::binary).rdbuf();
    return bytes.str();
}

/// Puts the bytes in the place of all that was in the file.
inline void write(const std::filesystem::path& file, std::string_view bytes) {
    std::ofstream(file, std::ios::binary) << bytes;
}

/// A folder of its own that every account may look into, gone with all that is in it.
class TempFolder {
public:
    explicit TempFolder(
        const std::filesystem::path& parent = std::filesystem::temp_directory_path()) {
        auto pattern = (parent / "okv-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no folder in " + pattern);
        path_ = pattern;
        chmod(path_.c_str(), 0755);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    ~TempFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    const std::string& path() const noexcept { return path_; }
    std::string operator/(std::string_view name) const { return path_ + '/' + std::string(name); }

    /// Writes a file, with the folders on its way, and answers its path.
    std::string write(std::string_view name, std::string_view bytes) const {
        const auto path = withFolders(name);
        support::write(path, bytes);
        return path;
    }
    /// Copies an executable there, with the folders on its way, and answers its path.
    std::string copyExecutable(const std::string& from, std::string_view name) const {
        const auto path = withFolders(name);
        std::filesystem::copy_file(from, path);
        chmod(path.c_str(), 0755);
        return path;
    }
    std::string makeFolder(std::string_view name) const {
        const auto path = *this / name;
        std::filesystem::create_directories(path);
        return path;
    }

private:
    std::string withFolders(std::string_view name) const {
        const auto path = *this / name;
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        return path;
    }

    std::string path_;
};

}  // namespace support
