// To be preloaded: makes what is written to the disk fail while it is told to, as a disk does that
// the system has taken away from a running process: it became read-only, or broke.
//
//   OKV_DISK_ERROR_FILE    while there is such a file: the error's number is in it
//   OKV_DISK_ERROR_BELOW   only files whose names begin so are concerned

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

template <class Function>
Function real(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

int toldError() {
    const char* path = std::getenv("OKV_DISK_ERROR_FILE");
    const int file = path != nullptr ? open(path, O_RDONLY | O_CLOEXEC) : -1;
    if (file < 0) return 0;
    char text[16] = {};
    const auto count = read(file, text, sizeof text - 1);
    close(file);
    return count > 0 ? std::atoi(text) : 0;
}

bool isConcerned(int descriptor) {
    const char* below = std::getenv("OKV_DISK_ERROR_BELOW");
    char link[64];
    char name[PATH_MAX];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
    const auto size = readlink(link, name, sizeof name);
    const auto wanted = below != nullptr ? std::strlen(below) : 0;
    return wanted > 0 && size >= static_cast<ssize_t>(wanted) &&
           std::strncmp(name, below, wanted) == 0;
}

// Sets errno and answers true where the call must fail.
bool fails(int descriptor) {
    const int saved = errno;
    const int error = isConcerned(descriptor) ? toldError() : 0;
    errno = error != 0 ? error : saved;
    return error != 0;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) ssize_t write(int descriptor, const void* bytes,
                                                     std::size_t size) {
    static const auto next = real<ssize_t (*)(int, const void*, std::size_t)>("write");
    return fails(descriptor) ? -1 : next(descriptor, bytes, size);
}

__attribute__((visibility("default"))) ssize_t pwrite64(int descriptor, const void* bytes,
                                                        std::size_t size, off64_t offset) {
    static const auto next = real<ssize_t (*)(int, const void*, std::size_t, off64_t)>("pwrite64");
    return fails(descriptor) ? -1 : next(descriptor, bytes, size, offset);
}

__attribute__((visibility("default"))) int ftruncate64(int descriptor, off64_t size) noexcept {
    static const auto next = real<int (*)(int, off64_t)>("ftruncate64");
    return fails(descriptor) ? -1 : next(descriptor, size);
}
}
