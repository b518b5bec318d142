#include <OKVPlatform/values/BoundedFile.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace okv {

namespace {

class Descriptor {
public:
    explicit Descriptor(int number) noexcept : number_(number) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (number_ >= 0) ::close(number_);
    }
    int number() const noexcept { return number_; }

private:
    int number_;
};

std::string systemError() {
    return std::generic_category().message(errno);
}

std::string tooLarge(std::size_t limit) {
    return "larger than " + std::to_string(limit) + " bytes";
}

// A FIFO or a device would answer at once, or never: O_NONBLOCK keeps the opening itself from
// waiting for the other end.
int openForReading(const std::string& path) {
    int number = -1;
    do {
        number = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    } while (number < 0 && errno == EINTR);
    return number;
}

// What forbids reading, or nothing. `stated` is the size that the file claims.
std::string refusal(int descriptor, std::size_t limit, std::size_t& stated) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0) return systemError();
    if (!S_ISREG(status.st_mode)) return "not a regular file";
    stated = static_cast<std::size_t>(status.st_size);
    return stated > limit ? tooLarge(limit) : std::string();
}

// Reads to the end, but never more than one byte past the limit. Empty when all went well.
std::string readAll(int descriptor, std::size_t limit, std::size_t stated, std::string& bytes) {
    constexpr std::size_t kPiece = 65536;
    std::size_t used = 0;
    bytes.resize(stated + 1);
    while (true) {
        if (used == bytes.size()) bytes.resize(std::min(used + kPiece, limit + 1));
        const auto got = ::read(descriptor, bytes.data() + used, bytes.size() - used);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return systemError();
        if (got == 0) break;
        used += static_cast<std::size_t>(got);
        if (used > limit) return tooLarge(limit);
    }
    bytes.resize(used);
    // Files of the kernel's making state no size at all.
    return stated != 0 && used != stated ? "changed while it was read" : std::string();
}

}  // namespace

FileBytes readBoundedFile(const std::string& path, std::size_t limit) {
    // The kernel would take the part before the NUL for the name of another file.
    if (path.find('\0') != std::string::npos) return {std::nullopt, "a path with a NUL byte"};
    const Descriptor file(openForReading(path));
    if (file.number() < 0) return {std::nullopt, path + ": " + systemError()};
    std::size_t stated = 0;
    std::string bytes;
    auto error = refusal(file.number(), limit, stated);
    if (error.empty()) error = readAll(file.number(), limit, stated, bytes);
    if (!error.empty()) return {std::nullopt, path + ": " + error};
    return {std::move(bytes), {}};
}

}  // namespace okv
