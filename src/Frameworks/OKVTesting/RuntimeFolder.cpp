#include <OKVTesting/RuntimeFolder.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace okv::testing {

namespace {
constexpr char kVariable[] = "OKV_RUNTIME_DIR";
}

RuntimeFolder::RuntimeFolder() {
    auto pattern = (std::filesystem::temp_directory_path() / "okv-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr)
        throw std::system_error(errno, std::generic_category(), "a private runtime folder");
    path_ = pattern;
    // Other accounts may look names up, as in the real folder.
    std::filesystem::permissions(path_, std::filesystem::perms(0755));
    if (const char* const before = std::getenv(kVariable)) before_ = before;
    setenv(kVariable, path_.c_str(), 1);
}

RuntimeFolder::~RuntimeFolder() {
    if (before_) {
        setenv(kVariable, before_->c_str(), 1);
    } else {
        unsetenv(kVariable);
    }
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

}  // namespace okv::testing
