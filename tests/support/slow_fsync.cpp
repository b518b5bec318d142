// To be preloaded: makes every flush to the disk slow, or hold until a test lets it go.
//
//   OKV_SLOW_FSYNC_MS   every flush takes so many milliseconds longer
//   OKV_FSYNC_GATE      while there is a FIFO at this path: a flush writes one byte to it and goes
//                       on once nobody has it open for reading any more

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>

namespace {

void sleepAsTold() {
    const char* told = std::getenv("OKV_SLOW_FSYNC_MS");
    const long milliseconds = told != nullptr ? std::strtol(told, nullptr, 10) : 0;
    if (milliseconds <= 0) return;
    timespec left{milliseconds / 1000, milliseconds % 1000 * 1000000};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

void passGate() {
    const char* path = std::getenv("OKV_FSYNC_GATE");
    const int gate = path != nullptr ? open(path, O_WRONLY | O_NONBLOCK | O_CLOEXEC) : -1;
    if (gate < 0) return;
    pollfd entry{gate, 0, 0};
    if (write(gate, "", 1) == 1) {
        while (poll(&entry, 1, -1) < 0 && errno == EINTR) {
        }
    }
    close(gate);
}

void hold() {
    const int saved = errno;
    sleepAsTold();
    passGate();
    errno = saved;
}

template <class Function>
Function real(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int fsync(int descriptor) {
    static const auto next = real<int (*)(int)>("fsync");
    hold();
    return next(descriptor);
}

__attribute__((visibility("default"))) int fdatasync(int descriptor) {
    static const auto next = real<int (*)(int)>("fdatasync");
    hold();
    return next(descriptor);
}

__attribute__((visibility("default"))) int sync_file_range(int descriptor, off64_t offset,
                                                           off64_t count, unsigned flags) {
    static const auto next = real<int (*)(int, off64_t, off64_t, unsigned)>("sync_file_range");
    hold();
    return next(descriptor, offset, count, flags);
}
}
