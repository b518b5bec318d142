#include "Board.h"

#include <sys/mman.h>

#include <algorithm>
#include <chrono>
#include <new>
#include <stdexcept>

namespace soak {

namespace {

template <std::size_t N>
void copyInto(char (&room)[N], std::string_view text) {
    const auto size = std::min(text.size(), N - 1);
    text.copy(room, size);
    room[size] = '\0';
}

}  // namespace

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

Failure failureOf(double begun, double ended, bool isWrong, std::string_view what) {
    Failure failure{begun, ended, isWrong, {}};
    copyInto(failure.text, what);
    return failure;
}

void Slot::begin(std::string_view name, std::size_t first, std::size_t count) {
    copyInto(name_, name);
    firstRegister_ = first;
    registerCount_ = count;
    lastSuccess_ = now();
}

void Slot::succeeded() {
    ++calls_;
    lastSuccess_ = now();
}

void Slot::failed(const Failure& failure) {
    const auto at = written_.load();
    if (at - taken_.load() == kRoom) {
        ++dropped_;
        return;
    }
    failures_[at % kRoom] = failure;
    written_ = at + 1;
}

bool Slot::take(Failure& failure) {
    const auto at = taken_.load();
    if (at == written_.load()) return false;
    failure = failures_[at % kRoom];
    taken_ = at + 1;
    return true;
}

Board& Board::make() {
    void* const room =
        mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (room == MAP_FAILED) throw std::runtime_error("no shared memory");
    return *new (room) Board;
}

Slot& Board::add(std::string_view name, Place place, std::size_t count) {
    if (slotsUsed == kSlots || registersUsed + count > kRegisters)
        throw std::logic_error("too many clients");
    auto& slot = slots[slotsUsed++];
    slot.begin(name, registersUsed, count);
    for (std::size_t i = 0; i < count; ++i) {
        auto& number = registers[registersUsed++];
        number.place = place;
        copyInto(number.key, "soak." + std::string(name) + "." + std::to_string(i));
    }
    return slot;
}

}  // namespace soak
