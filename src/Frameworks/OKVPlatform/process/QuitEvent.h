#pragma once

#include <OKVPlatform/Export.h>
#include <OKVPlatform/ipc/PeerIdentity.h>
#include <OKVPlatform/process/ProcessManager.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace okv {

/// Results of events beside the Process Manager's, under their platform names.
inline constexpr OSStatus tmfoErr = -42;  ///< not sent: the sender has no descriptors left
inline constexpr OSStatus connectionInvalid = -609;        ///< the target ended without a reply
inline constexpr OSStatus errAEEventNotHandled = -1708;    ///< the target does not know the event
inline constexpr OSStatus errAEReplyNotValid = -1709;      ///< the reply cannot be read
inline constexpr OSStatus errAETimeout = -1712;            ///< no reply in time
inline constexpr OSStatus errAEEventNotPermitted = -1743;  ///< the sender may not ask for this

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

/// The target that a serial number names; none for a null pointer. A serial number that names no
/// process makes a target too: the sending finds nobody there.
OKV_EXPORT std::optional<QuitTarget> makeQuitTarget(const ProcessSerialNumber* psn);

/// The request to quit, addressed to the target. Never none: that nobody can be asked, the sending
/// finds out.
OKV_EXPORT std::optional<QuitEvent> makeQuitEvent(const QuitTarget& target);

/// Sends the event and waits for the reply, `ticks` at most. Only the target itself, by the
/// kernel's word on its process id, is ever asked. The status is procNotFound when it does not
/// listen for quit events, tmfoErr when this process lacks the descriptors or the system the memory
/// to find that out, else noErr or one of the above. Any thread may call it, except the one whose
/// run loop serves the target's listener.
OKV_EXPORT QuitReply sendQuitEvent(const QuitEvent& event, std::int32_t ticks);

/// How an application hears that it shall quit:
///
///     auto listener = okv::QuitEventListener::start([&](const okv::PeerIdentity&) {
///         if (hasUnsavedChanges()) return okv::OSStatus{-128};   // the user would be asked
///         okv::RunLoop::current()->stop();
///         return okv::noErr;
///     });
///
/// The events come on the run loop of the thread that started it, in the order they were sent, and
/// the reply is on its way when the handler has returned. One listener a process; it must go away
/// on its own thread.
class OKV_EXPORT QuitEventListener {
public:
    /// Answers noErr to accept, or the error number that the sender gets.
    using Handler = std::function<OSStatus(const PeerIdentity& sender)>;
    /// Whether a sender may ask at all; who may not gets errAEEventNotPermitted.
    using Permission = std::function<bool(const PeerIdentity& sender)>;

    /// Null when this process cannot be reached under its name; `why`, where given, then tells the
    /// reason (mostly that the folder "apps" in the runtime folder is missing; it is made when this
    /// process has the right to).
    static std::unique_ptr<QuitEventListener> start(Handler handler,
                                                    Permission mayAsk = isRootOrOwnUser,
                                                    std::string* why = nullptr);
    /// The permission unless another is given: those who might as well send a signal.
    static bool isRootOrOwnUser(const PeerIdentity& sender);

    QuitEventListener(const QuitEventListener&) = delete;
    QuitEventListener& operator=(const QuitEventListener&) = delete;
    ~QuitEventListener();

private:
    class Service;
    explicit QuitEventListener(std::unique_ptr<Service> service);

    std::unique_ptr<Service> service_;
};

}  // namespace okv
