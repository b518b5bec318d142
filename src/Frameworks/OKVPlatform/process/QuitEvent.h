#pragma once

#include <OKVPlatform/Export.h>
#include <OKVPlatform/process/ProcessManager.h>

#include <cstdint>
#include <optional>

namespace okv {

/// Time-outs of events are counted in ticks, sixtieths of a second.
inline constexpr std::int32_t kTicksPerSecond = 60;

/// The address of an event: the application with this process id.
struct QuitTarget {
    std::int32_t pid = 0;
};

/// A request to quit, ready to be sent.
struct QuitEvent {
    QuitTarget target;
};

/// What became of an event: how the sending went and, when the application replied with one, its
/// error number.
struct QuitReply {
    OSStatus status = noErr;
    std::optional<std::int32_t> errorNumber;
};

/// The target that a serial number names; none for a null pointer.
OKV_EXPORT std::optional<QuitTarget> makeQuitTarget(const ProcessSerialNumber* psn);

OKV_EXPORT std::optional<QuitEvent> makeQuitEvent(const QuitTarget& target);

/// Sends the event and waits for the reply, `ticks` at most. The status is procNotFound when the
/// target does not listen for quit events.
OKV_EXPORT QuitReply sendQuitEvent(const QuitEvent& event, std::int32_t ticks);

}  // namespace okv
