#include <pthread.h>

// The address sanitizer of clang 14 does not keep its locks whole over a fork: a child that was
// forked while another thread allocated would wait for ever for that thread's. Part of every test
// program that is built with it, so that what a forked child is tested for is our own locks.

// The runtime's own names: its leak detector stops the other threads so, in this order.
namespace __lsan {
void LockThreadRegistry();
void UnlockThreadRegistry();
void LockAllocator();
void UnlockAllocator();
}  // namespace __lsan

namespace {

void stopTheRuntime() {
    __lsan::LockThreadRegistry();
    __lsan::LockAllocator();
}

void letItGoOn() {
    __lsan::UnlockAllocator();
    __lsan::UnlockThreadRegistry();
}

// What is registered first is called last before a fork. By then nobody holds a lock of ours and
// waits for memory; a library's own handlers are registered while it is loaded, which is later.
void registerFirst(int, char**, char**) {
    pthread_atfork(&stopTheRuntime, &letItGoOn, &letItGoOn);
}

using Initializer = void(int, char**, char**);
[[gnu::section(".preinit_array"), gnu::used]] Initializer* const entry = &registerFirst;

}  // namespace
