#include "Checker.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <set>

namespace killing {

namespace {

using Kind = Fault::Kind;

constexpr std::int64_t kOwnKeys = 8;

// The writer that a key belongs to alone.
std::optional<int> writerOf(const std::string& key) {
    const auto dot = key.find('.');
    if ((key[0] != 'm' && key[0] != 'o') || dot == std::string::npos) return std::nullopt;
    int writer = 0;
    const auto* const end = key.data() + dot;
    const auto read = std::from_chars(key.data() + 1, end, writer);
    return read.ptr == end && read.ec == std::errc() ? std::optional(writer) : std::nullopt;
}

std::vector<std::string> keysOf(const Write& write) {
    std::vector<std::string> keys;
    for (const auto& [key, value] : write.settings) keys.push_back(key);
    std::sort(keys.begin(), keys.end());
    return keys;
}

class Checker {
public:
    Checker(const History& history, std::size_t atMost) : history_(history), atMost_(atMost) {}

    std::vector<Fault> check() {
        if (history_.readings.empty()) {
            tell(Kind::unfinished, "nothing was read at the end");
            return faults_;
        }
        collectChanges();
        findWrites();
        checkOrder();
        checkReadings();
        checkWatchers();
        return std::move(faults_);
    }

private:
    void tell(Kind kind, std::string what) {
        if (faults_.size() < atMost_) faults_.push_back({kind, std::move(what)});
    }

    // ---- Which changes there were ----

    void collectChanges() {
        for (const auto& [watcher, watch] : history_.watchers) collectFrom(watcher, watch);
        std::int64_t next = 1;
        for (const auto& [revision, keys] : changes_) {
            for (; next < revision; ++next)
                tell(Kind::gap, "nobody was told of revision " + std::to_string(next));
            next = revision + 1;
        }
        const auto last = history_.readings.back().revision;
        if (next <= last) tell(Kind::gap, "nobody was told of revision " + std::to_string(last));
        if (next - 1 > last)
            tell(Kind::duplicate, "revision " + std::to_string(next - 1) +
                                      " was told, and the last one is " + std::to_string(last));
    }

    void collectFrom(int watcher, const Watch& watch) {
        const auto who = "watcher " + std::to_string(watcher);
        std::int64_t last = 0;
        for (const auto& change : watch.seen) {
            const auto which = "revision " + std::to_string(change.revision);
            if (change.revision > last + 1) tell(Kind::gap, who + " saw no change before " + which);
            if (change.revision <= last) tell(Kind::duplicate, who + " saw again " + which);
            last = change.revision;
            const auto [known, isNew] = changes_.emplace(change.revision, &change.keys);
            if (!isNew && *known->second != change.keys)
                tell(Kind::duplicate, who + " saw another change as " + which);
        }
    }

    // ---- Which write each of them was ----

    void findWrites() {
        for (const auto& [revision, keys] : changes_) {
            if (const auto* write = writeFor(*keys)) {
                order_.emplace_back(revision, write);
            } else {
                tell(Kind::phantom, "revision " + std::to_string(revision) + " is no write");
            }
        }
        for (const auto& [writer, writes] : history_.writers) {
            while (const auto* write = nextOf(writer)) passOver(*write);
        }
    }

    // The writer's writes are carried out in order; those with an unknown outcome may be missing.
    const Write* writeFor(const std::vector<std::string>& keys) {
        const auto writer = theWriterOf(keys);
        if (!writer) return nullptr;
        const auto before = next_[*writer];
        std::vector<const Write*> passed;
        while (const auto* write = nextOf(*writer)) {
            if (keysOf(*write) == keys) {
                for (const auto* other : passed) passOver(*other);
                if (write->outcome == Outcome::unsent)
                    tell(Kind::phantom, write->name() + " was not sent, and is there");
                return write;
            }
            passed.push_back(write);
        }
        next_[*writer] = before;
        return nullptr;
    }

    static std::optional<int> theWriterOf(const std::vector<std::string>& keys) {
        for (const auto& key : keys) {
            if (const auto writer = writerOf(key)) return writer;
        }
        return std::nullopt;
    }

    const Write* nextOf(int writer) {
        const auto writes = history_.writers.find(writer);
        auto& next = next_[writer];
        if (writes == history_.writers.end() || next == writes->second.size()) return nullptr;
        return &writes->second[next++];
    }

    void passOver(const Write& write) {
        if (write.outcome == Outcome::acknowledged)
            tell(Kind::lost, write.name() + " was acknowledged, and no revision is it");
    }

    // What was acknowledged before another one began comes before it.
    void checkOrder() {
        const Write* earliest = nullptr;
        for (auto at = order_.rbegin(); at != order_.rend(); ++at) {
            const auto& write = *at->second;
            if (earliest != nullptr && earliest->answered < write.invoked)
                tell(Kind::disordered, write.name() + " comes before " + earliest->name() +
                                           ", which was answered before it began");
            if (write.outcome == Outcome::acknowledged &&
                (earliest == nullptr || write.answered < earliest->answered))
                earliest = &write;
        }
    }

    // ---- What must be there ----

    void checkReadings() {
        auto next = order_.begin();
        std::int64_t last = 0;
        for (const auto& reading : history_.readings) {
            if (reading.revision < last)
                tell(Kind::duplicate, "the revision went back to " +
                                          std::to_string(reading.revision) + " from " +
                                          std::to_string(last));
            last = reading.revision;
            for (; next != order_.end() && next->first <= reading.revision; ++next)
                carryOut(*next->second);
            compare(reading);
        }
    }

    void carryOut(const Write& write) {
        for (const auto& [key, value] : write.settings) there_[key] = {value, &write};
    }

    // A write of which something is there and something is not is torn; one of which nothing is
    // there, but what others wrote over, is lost.
    void compare(const Reading& reading) {
        std::set<const Write*> right;
        std::map<const Write*, std::string> wrong;
        for (auto at = there_.begin(); at != there_.end();) {
            const auto& [key, last] = *at;
            const auto found = reading.picture.find(key);
            const auto value = found != reading.picture.end() ? found->second : std::string();
            if (value != last.value) {
                wrong.emplace(last.write,
                              key + " is \"" + value + "\", not \"" + last.value + "\"");
            } else if (!value.empty()) {
                right.insert(last.write);
            }
            // What was taken away and is away need not be looked at again.
            at = value.empty() && last.value.empty() ? there_.erase(at) : std::next(at);
        }
        for (const auto& [write, what] : wrong)
            tell(right.count(write) > 0 ? Kind::torn : Kind::lost,
                 after(reading) + ", of write " + write->name() + ": " + what);
        for (const auto& [key, value] : reading.picture) {
            if (there_.count(key) == 0)
                tell(Kind::torn,
                     after(reading) + ": " + key + " is \"" + value + "\", by no revision");
        }
    }

    static std::string after(const Reading& reading) {
        return "after revision " + std::to_string(reading.revision);
    }

    void checkWatchers() {
        const auto& last = history_.readings.back();
        for (const auto& [watcher, watch] : history_.watchers) {
            const auto who = "watcher " + std::to_string(watcher);
            if (watch.resyncs > 0) tell(Kind::gap, who + " was told that changes are not known");
            if (watch.revision != last.revision) {
                tell(Kind::stale, who + " stands at revision " + std::to_string(watch.revision) +
                                      " of " + std::to_string(last.revision));
            } else if (watch.picture != last.picture) {
                tell(Kind::stale, who + ": " + difference(watch.picture, last.picture));
            }
        }
    }

    static std::string difference(const Picture& seen, const Picture& there) {
        for (const auto& [key, value] : there) {
            const auto found = seen.find(key);
            if (found == seen.end()) return "lacks " + key;
            if (found->second != value)
                return key + " is \"" + found->second + "\", not \"" + value + "\"";
        }
        return "has more than there is";
    }

    struct Last {
        std::string value;
        const Write* write = nullptr;
    };

    const History& history_;
    const std::size_t atMost_;
    std::vector<Fault> faults_;
    std::map<std::int64_t, const std::vector<std::string>*> changes_;
    std::map<int, std::size_t> next_;
    std::vector<std::pair<std::int64_t, const Write*>> order_;
    std::map<std::string, Last> there_;
};

}  // namespace

const char* nameOf(Fault::Kind kind) {
    switch (kind) {
        case Kind::gap:
            return "gap";
        case Kind::duplicate:
            return "duplicate";
        case Kind::lost:
            return "lost";
        case Kind::torn:
            return "torn";
        case Kind::phantom:
            return "phantom";
        case Kind::disordered:
            return "disordered";
        case Kind::stale:
            return "stale";
        case Kind::unfinished:
            return "unfinished";
    }
    return "";
}

std::vector<Fault> check(const History& history, std::size_t atMost) {
    return Checker(history, atMost).check();
}

std::string keyOfWrite(int writer, std::int64_t number) {
    return "m" + std::to_string(writer) + "." + std::to_string(number);
}

std::string ownKey(int writer, std::int64_t number) {
    return "o" + std::to_string(writer) + "." + std::to_string(number % kOwnKeys);
}

}  // namespace killing
