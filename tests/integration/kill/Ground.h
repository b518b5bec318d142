#pragma once

#include "Checker.h"

#include <OKVPlatform/values/Value.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace killing {

/// A fault that is put in on purpose, to show that it is found.
enum class Seed { none, lost, torn, gap, duplicate, stale };

inline constexpr int kWriters = 8;
inline constexpr int kWatchers = 8;
/// Whose settings are written and watched.
inline constexpr std::int32_t kUser = 1;

/// What all processes share: memory of its own, at the same place in each.
struct Ground {
    static Ground& make();

    std::atomic<bool> stop{false};       ///< writers end
    std::atomic<bool> hold{false};       ///< writers begin nothing
    std::atomic<std::int64_t> last{-1};  ///< the last revision there will be, once it is known
    std::atomic<long> acknowledged[kWriters] = {};
    std::atomic<long> unknown{0}, unsent{0};
    std::atomic<std::int64_t> revisions[kWatchers] = {};  ///< that each watcher has reached
};

/// The file that every process adds lines to.
class Record {
public:
    explicit Record(const std::string& file);
    Record(const Record&) = delete;
    Record& operator=(const Record&) = delete;
    ~Record();

    void add(std::string line) const;

private:
    int file_;
};

/// Seconds on the clock that all processes share.
double now();

/// A value that is the tag and a text whose length goes by it; a tag of a value, or "damaged".
okv::Value valueOf(const std::string& tag);
std::string tagOf(const okv::Value& value);

/// Writes, and records it, until the ground says stop.
void runWriter(int writer, Ground& ground, const Record& record);
/// Follows the changes, and records them, until it has reached the last one; then records its
/// picture. With the seed it overlooks the values of one change.
void runWatcher(int watcher, Ground& ground, const Record& record, bool isStale);

}  // namespace killing
