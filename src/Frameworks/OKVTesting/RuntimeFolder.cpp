#include <OKVTesting/RuntimeFolder.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace okv::testing {

RuntimeFolder::RuntimeFolder() {
    auto pattern = (std::filesystem::temp_directory_path() / "okv-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr)
        throw std::system_error(errno, std::generic_category(), "a private runtime folder");
    path_ = pattern;
    // Other accounts may look names up, as in the real folder.
    std::filesystem::permissions(path_, std::filesystem::perms(0755));
    setenv("OKV_RUNTIME_DIR", path_.c_str(), 1);
}

RuntimeFolder::~RuntimeFolder() {
    unsetenv("OKV_RUNTIME_DIR");
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

}  // namespace okv::testing
