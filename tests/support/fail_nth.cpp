// To be preloaded, or linked into a test: fails one call of a function, as the plan (see
// FailPlan.h) says; where it is preloaded, the one in the file named by OKV_FAIL_PLAN. Only calls
// of the program and its libraries count, not those within libc.

#include "FailPlan.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
}

__attribute__((visibility("default"))) FailPlan* okvFailPlan = nullptr;

namespace {

using Function = FailPlan::Function;

// Without calls that are counted themselves.
__attribute__((constructor)) void readPlan() {
    const char* path = std::getenv(kFailPlanVariable);
    if (path == nullptr) return;
    const auto file = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC));
    if (file < 0) std::abort();
    void* mapped = mmap(nullptr, sizeof(FailPlan), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    syscall(SYS_close, file);
    if (mapped == MAP_FAILED) std::abort();
    okvFailPlan = static_cast<FailPlan*>(mapped);
}

// Whether this call is the one; then errno tells why, but for a short count.
bool isTheOne(Function function) {
    if (okvFailPlan == nullptr || okvFailPlan->function != function || !okvFailPlan->armed)
        return false;
    if (++okvFailPlan->calls != okvFailPlan->nth) return false;
    okvFailPlan->failed = true;
    if (okvFailPlan->error != FailPlan::kShort) errno = okvFailPlan->error;
    return true;
}

// Where it lies in memory. What it takes for itself is not counted: where it cannot note what is to
// be destroyed with a thread it ends the process, and its look-up of groups asserts.
struct Libc {
    std::uintptr_t begin = 0, end = 0;

    Libc() { dl_iterate_phdr(&look, this); }
    static int look(dl_phdr_info* object, std::size_t, void* self) {
        if (std::strstr(object->dlpi_name, "/libc.so.") == nullptr) return 0;
        auto& libc = *static_cast<Libc*>(self);
        libc.begin = object->dlpi_addr;
        for (int i = 0; i < object->dlpi_phnum; ++i) {
            const auto& part = object->dlpi_phdr[i];
            if (part.p_type == PT_LOAD)
                libc.end = std::max(libc.end, object->dlpi_addr + part.p_vaddr + part.p_memsz);
        }
        return 1;
    }
};

bool isWithinLibc(const void* caller) {
    static const Libc libc;
    const auto at = reinterpret_cast<std::uintptr_t>(caller);
    return at >= libc.begin && at < libc.end;
}

bool isTheAllocation(const void* caller) {
    return okvFailPlan != nullptr && okvFailPlan->armed &&
           okvFailPlan->function == Function::allocate && !isWithinLibc(caller) &&
           isTheOne(Function::allocate);
}

bool isMeant(int descriptor) {
    if (okvFailPlan == nullptr || okvFailPlan->kind == FailPlan::Kind::any) return true;
    const int saved = errno;
    struct stat status {};
    const bool known = fstat(descriptor, &status) == 0;
    errno = saved;
    const auto type = okvFailPlan->kind == FailPlan::Kind::file ? S_IFREG : S_IFSOCK;
    return known && (status.st_mode & S_IFMT) == static_cast<mode_t>(type);
}

template <class F>
F* real(const char* name) {
    return reinterpret_cast<F*>(dlsym(RTLD_NEXT, name));
}

// A transfer: fails, or is given a smaller count. One byte cannot be made less.
template <class Transfer>
ssize_t transfer(Function function, int descriptor, std::size_t count, Transfer next) {
    if (!isMeant(descriptor) || !isTheOne(function)) return next(count);
    if (okvFailPlan->error != FailPlan::kShort) return -1;
    // Of a socket, fewer than have come; of a file, all that is asked for is mostly there.
    return next(okvFailPlan->kind == FailPlan::Kind::socket ? 1
                                                            : std::max<std::size_t>(1, count / 2));
}

mode_t modeOf(int flags, va_list& more) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(more, mode_t) : 0;
}

}  // namespace

#pragma GCC visibility push(default)
extern "C" {

ssize_t read(int fd, void* bytes, std::size_t count) {
    static auto* const next = real<ssize_t(int, void*, std::size_t)>("read");
    return transfer(Function::read, fd, count, [&](std::size_t n) { return next(fd, bytes, n); });
}

ssize_t pread(int fd, void* bytes, std::size_t count, off_t at) {
    static auto* const next = real<ssize_t(int, void*, std::size_t, off_t)>("pread");
    return transfer(Function::read, fd, count,
                    [&](std::size_t n) { return next(fd, bytes, n, at); });
}

ssize_t pread64(int fd, void* bytes, std::size_t count, off64_t at) {
    return pread(fd, bytes, count, at);
}

ssize_t recv(int fd, void* bytes, std::size_t count, int flags) {
    static auto* const next = real<ssize_t(int, void*, std::size_t, int)>("recv");
    return transfer(Function::read, fd, count,
                    [&](std::size_t n) { return next(fd, bytes, n, flags); });
}

ssize_t recvmsg(int fd, msghdr* message, int flags) {
    static auto* const next = real<ssize_t(int, msghdr*, int)>("recvmsg");
    return transfer(Function::read, fd, 1, [&](std::size_t) { return next(fd, message, flags); });
}

ssize_t write(int fd, const void* bytes, std::size_t count) {
    static auto* const next = real<ssize_t(int, const void*, std::size_t)>("write");
    return transfer(Function::write, fd, count, [&](std::size_t n) { return next(fd, bytes, n); });
}

ssize_t pwrite(int fd, const void* bytes, std::size_t count, off_t at) {
    static auto* const next = real<ssize_t(int, const void*, std::size_t, off_t)>("pwrite");
    return transfer(Function::write, fd, count,
                    [&](std::size_t n) { return next(fd, bytes, n, at); });
}

ssize_t pwrite64(int fd, const void* bytes, std::size_t count, off64_t at) {
    return pwrite(fd, bytes, count, at);
}

ssize_t send(int fd, const void* bytes, std::size_t count, int flags) {
    static auto* const next = real<ssize_t(int, const void*, std::size_t, int)>("send");
    return transfer(Function::write, fd, count,
                    [&](std::size_t n) { return next(fd, bytes, n, flags); });
}

ssize_t sendmsg(int fd, const msghdr* message, int flags) {
    static auto* const next = real<ssize_t(int, const msghdr*, int)>("sendmsg");
    return transfer(Function::write, fd, 1, [&](std::size_t) { return next(fd, message, flags); });
}

int openat(int folder, const char* path, int flags, ...) {
    static auto* const next = real<int(int, const char*, int, ...)>("openat");
    va_list more;
    va_start(more, flags);
    const auto mode = modeOf(flags, more);
    va_end(more);
    return isTheOne(Function::open) ? -1 : next(folder, path, flags, mode);
}

int open(const char* path, int flags, ...) {
    va_list more;
    va_start(more, flags);
    const auto mode = modeOf(flags, more);
    va_end(more);
    return openat(AT_FDCWD, path, flags, mode);
}

int open64(const char* path, int flags, ...) {
    va_list more;
    va_start(more, flags);
    const auto mode = modeOf(flags, more);
    va_end(more);
    return openat(AT_FDCWD, path, flags, mode);
}

int openat64(int folder, const char* path, int flags, ...) {
    va_list more;
    va_start(more, flags);
    const auto mode = modeOf(flags, more);
    va_end(more);
    return openat(folder, path, flags, mode);
}

int fsync(int fd) {
    static auto* const next = real<int(int)>("fsync");
    return isTheOne(Function::sync) ? -1 : next(fd);
}

int fdatasync(int fd) {
    static auto* const next = real<int(int)>("fdatasync");
    return isTheOne(Function::sync) ? -1 : next(fd);
}

int rename(const char* from, const char* to) {
    static auto* const next = real<int(const char*, const char*)>("rename");
    return isTheOne(Function::rename) ? -1 : next(from, to);
}

int renameat(int fromFolder, const char* from, int toFolder, const char* to) {
    static auto* const next = real<int(int, const char*, int, const char*)>("renameat");
    return isTheOne(Function::rename) ? -1 : next(fromFolder, from, toFolder, to);
}

int renameat2(int fromFolder, const char* from, int toFolder, const char* to, unsigned flags) {
    static auto* const next = real<int(int, const char*, int, const char*, unsigned)>("renameat2");
    return isTheOne(Function::rename) ? -1 : next(fromFolder, from, toFolder, to, flags);
}

int flock(int fd, int operation) {
    static auto* const next = real<int(int, int)>("flock");
    return isTheOne(Function::lock) ? -1 : next(fd, operation);
}

int ftruncate(int fd, off_t size) {
    static auto* const next = real<int(int, off_t)>("ftruncate");
    return isTheOne(Function::truncate) ? -1 : next(fd, size);
}

int ftruncate64(int fd, off64_t size) {
    return ftruncate(fd, size);
}

int epoll_ctl(int epoll, int operation, int fd, epoll_event* event) {
    static auto* const next = real<int(int, int, int, epoll_event*)>("epoll_ctl");
    // Only what is put in needs memory.
    if (operation != EPOLL_CTL_ADD) return next(epoll, operation, fd, event);
    return isTheOne(Function::epollCtl) ? -1 : next(epoll, operation, fd, event);
}

int accept(int fd, sockaddr* address, socklen_t* length) {
    static auto* const next = real<int(int, sockaddr*, socklen_t*)>("accept");
    return isTheOne(Function::accept) ? -1 : next(fd, address, length);
}

int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
    static auto* const next = real<int(int, sockaddr*, socklen_t*, int)>("accept4");
    return isTheOne(Function::accept) ? -1 : next(fd, address, length, flags);
}

// Half a second of sleep before each try to connect would make the runs long.
int usleep(useconds_t) {
    return 0;
}

void* malloc(std::size_t size) {
    return isTheAllocation(__builtin_return_address(0)) ? nullptr : __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) {
    return isTheAllocation(__builtin_return_address(0)) ? nullptr : __libc_calloc(count, size);
}

void* realloc(void* memory, std::size_t size) {
    return isTheAllocation(__builtin_return_address(0)) ? nullptr : __libc_realloc(memory, size);
}
}
#pragma GCC visibility pop
