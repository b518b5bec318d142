#include "StoreFile.h"

#include "Output.h"
#include "ToolError.h"

#include <OKVPlatform/ipc/PrivateDescriptor.h>
#include <OKVPlatform/values/BoundedFile.h>
#include <OKVPlatform/values/ErrorText.h>
#include <OKVPlatform/values/PropertyListFile.h>
#include <OKVPlatform/values/Unicode.h>
#include <OKVPlatform/values/WriteAll.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace okvctl {

namespace {

[[noreturn]] void fail(const std::string& path, const char* what) {
    throw ToolError(ExitCode::failure, path + ": " + what + okv::errorText(errno));
}

// No JSON begins so. A property list in UTF-16 begins with a byte order mark.
bool looksLikePropertyList(std::string_view bytes) {
    if (bytes.starts_with("bplist") || bytes.starts_with(okv::kUtf16BigMark) ||
        bytes.starts_with(okv::kUtf16LittleMark))
        return true;
    if (bytes.starts_with(okv::kUtf8Mark)) bytes.remove_prefix(3);
    const auto first = bytes.find_first_not_of(" \t\r\n");
    return first != std::string_view::npos && bytes[first] == '<';
}

void writeInto(const std::string& path, std::string_view text) {
    const okv::PrivateDescriptor file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (file.get() < 0) fail(path, "it cannot be opened: ");
    if (!okv::writeAll(file.get(), text)) fail(path, "it cannot be written: ");
}

/// A file beside the one that it is to become; gone unless it became that.
class Replacement {
public:
    explicit Replacement(const std::string& path) : path_(path), name_(path + ".XXXXXX") {
        file_ = okv::PrivateDescriptor(mkostemp(name_.data(), O_CLOEXEC));
        if (file_.get() < 0) fail(path_, "no file can be made beside it: ");
    }
    Replacement(const Replacement&) = delete;
    Replacement& operator=(const Replacement&) = delete;
    ~Replacement() {
        if (!done_) unlink(name_.c_str());
    }

    void become(std::string_view text) {
        if (!okv::writeAll(file_.get(), text) || fsync(file_.get()) != 0)
            fail(path_, "it cannot be written: ");
        if (std::rename(name_.c_str(), path_.c_str()) != 0) fail(path_, "it cannot be replaced: ");
        done_ = true;
    }

private:
    const std::string& path_;
    std::string name_;
    okv::PrivateDescriptor file_;
    bool done_ = false;
};

}  // namespace

bool isPropertyListName(std::string_view path) {
    return path.ends_with(".plist");
}

ParsedValue parseStore(std::string_view bytes) {
    if (!looksLikePropertyList(bytes)) return parseJson(bytes, kStoreFileAtMost);
    auto list = okv::readPropertyList(bytes);
    return {std::move(list.value), std::move(list.error)};
}

std::string storeText(const okv::Value& store, Format format) {
    return format == kPlist ? plistText(store) : jsonText(store) + "\n";
}

std::string readStoreFile(const std::string& path) {
    if (path == "-") return readStandardInput(kStoreFileAtMost);
    auto file = okv::readBoundedFile(path, kStoreFileAtMost);
    if (!file) throw ToolError(ExitCode::failure, file.error);
    return std::move(*file.bytes);
}

void writeStoreFile(const std::string& path, std::string_view text) {
    struct stat status {};
    const bool exists = stat(path.c_str(), &status) == 0;
    if (exists && !S_ISREG(status.st_mode)) return writeInto(path, text);
    Replacement(path).become(text);
}

std::string readStandardInput(std::size_t atMost) {
    std::string text;
    char buffer[65536];
    while (text.size() <= atMost) {
        const auto count = read(STDIN_FILENO, buffer, sizeof buffer);
        if (count == 0) return text;
        if (count > 0) text.append(buffer, static_cast<std::size_t>(count));
        if (count < 0 && errno != EINTR) fail("the standard input", "");
    }
    throw ToolError(ExitCode::failure,
                    "the standard input is longer than " + std::to_string(atMost >> 20) + " MiB");
}

}  // namespace okvctl
