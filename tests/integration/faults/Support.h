#pragma once

#include "../ServerProcess.h"
#include "OKVDataAdmin_protocol.h"

#include "support/DataServer.h"
#include "support/Processes.h"
#include "support/Sanitizers.h"

#include <OKVPlatform/ipc/NotificationCenter.h>

#include <sys/types.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace faults {

using Data = OKVDataMng_protocol;
using Admin = OKVDataAdmin_protocol;
using Clock = std::chrono::steady_clock;
using support::asAccount;
using support::connect;
using support::connection;
using support::Environment;

/// How much slower than usual everything is: a sanitized build does fewer rounds, and is given more
/// time where a time is bounded.
inline constexpr int kSlowness = support::kIsSanitized ? 10 : 1;
constexpr int rounds(int usual) {
    return std::max(1, usual / kSlowness);
}

/// The default user's setting.
bool set(okv::RemoteObject& root, const std::string& key, const okv::Value& value);
okv::Value get(okv::RemoteObject& root, const std::string& key);
okv::Dictionary status(okv::RemoteObject& root);

/// Runs the tool, whose output nobody sees; its exit code, or 128 and the signal's number.
int runTool(std::vector<std::string> arguments);

/// ASAN_OPTIONS for programs that a library is preloaded into: it comes before the sanitizer's,
/// which otherwise refuses to run.
std::string optionsForPreloading();

/// For servers whose flushes to the disk a test holds: start them while this lives.
class HoldableDisk {
public:
    explicit HoldableDisk(const std::string& gate);

private:
    Environment preload_, check_, gate_;
};

/// Holds the flushes of a server that was started with a HoldableDisk, from when this is made.
class Gate {
public:
    explicit Gate(std::string path);
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;
    ~Gate() { letGo(); }

    /// Waits until a flush is held; false when none comes.
    bool awaitArrival() const;
    void letGo();

private:
    const std::string path_;
    int fifo_ = -1;
};

/// Counts the death notices of every connection.
class Mourner final : public okv::Object {
public:
    Mourner();
    int deathsOf(const okv::Connection& connection) const;

protected:
    void dealloc() override;

private:
    void note(const okv::LocalNotification& notice);

    mutable std::mutex mutex_;
    std::map<const okv::Object*, int> deaths_;
};

/// The kind of error that the call ends with; none when it ends with a result.
template <class Call>
std::optional<okv::ConnectionError::Kind> failureOf(Call call) {
    try {
        call();
        return std::nullopt;
    } catch (const okv::ConnectionError& error) {
        return error.kind();
    }
}

}  // namespace faults
