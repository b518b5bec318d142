#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace soak {

/// Seconds on the clock that all processes share.
double now();

/// A call, or an attempt to connect, that failed.
struct Failure {
    double begun = 0, ended = 0;
    bool isWrong = false;  ///< an answer that is never right, whatever happens to the server
    char text[108] = {};
};
Failure failureOf(double begun, double ended, bool isWrong, std::string_view what);

/// Where in the store a register's number stands.
enum class Place {
    user,       ///< a setting of the default user
    everybody,  ///< a setting of everybody
    several,    ///< several settings of the default user that are only ever changed together
    list,       ///< one of the default user's lists
};

/// A number in the store that one client at a time raises. What is read is never lower than what
/// had been acknowledged before, and never higher than what was tried.
struct Register {
    Place place = Place::user;
    char key[32] = {};
    std::atomic<std::int64_t> tried{0};
    std::atomic<std::int64_t> acknowledged{0};
};

/// What one client tells. The process in it may change; one at a time writes, the director reads.
class Slot {
public:
    void begin(std::string_view name, std::size_t first, std::size_t count);
    const char* name() const { return name_; }
    std::size_t firstRegister() const { return firstRegister_; }
    std::size_t registerCount() const { return registerCount_; }

    void succeeded();
    void failed(const Failure& failure);

    long calls() const { return calls_; }
    double lastSuccess() const { return lastSuccess_; }
    /// Takes the oldest failure that was not taken yet; false when there is none.
    bool take(Failure& failure);
    /// Failures that there was no room for.
    long dropped() const { return dropped_; }

private:
    static constexpr std::size_t kRoom = 256;

    char name_[16] = {};
    std::size_t firstRegister_ = 0, registerCount_ = 0;
    std::atomic<long> calls_{0}, dropped_{0};
    std::atomic<double> lastSuccess_{0};
    std::atomic<std::size_t> written_{0}, taken_{0};
    Failure failures_[kRoom];
};

inline constexpr std::size_t kSlots = 32;
inline constexpr std::size_t kRegisters = 512;

/// What all processes of the soak share: memory of its own, at the same place in each.
struct Board {
    static Board& make();

    std::atomic<bool> stop{false};
    std::chrono::milliseconds pause{0};  ///< of every client between two steps, beside its own
    Slot slots[kSlots];
    Register registers[kRegisters];
    std::size_t slotsUsed = 0, registersUsed = 0;

    /// Adds a client with so many registers of its own.
    Slot& add(std::string_view name, Place place, std::size_t registers);
};

}  // namespace soak
