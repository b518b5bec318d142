#pragma once

#include <OKVPlatform/Export.h>
#include <OKVPlatform/ipc/ConnectionError.h>
#include <OKVPlatform/ipc/Frame.h>
#include <OKVPlatform/ipc/PeerIdentity.h>
#include <OKVPlatform/values/Cbor.h>
#include <OKVPlatform/values/Object.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace okv {

/// The object that a publication vends; it exists where the publisher's hello says so.
inline constexpr std::uint64_t kRootObject = 0;

/// Why a request was answered with a zero value. It travels beside the value: who does not ask does
/// not see it.
struct OKV_EXPORT Refusal {
    enum class Kind : std::uint8_t {
        notAllowed = 1,  ///< the caller's account may not do this
        locked = 2,      ///< the administrator has locked the key
        invalid = 3,     ///< an argument that cannot be stored or looked up
        tooLarge = 4,    ///< beyond a limit
        noSpace = 5,     ///< the store has no room
        failed = 6,      ///< the store could not do it
    };
    Kind kind;
    std::string reason;
};

class IncomingRequest;

/// Takes a reply's payload while it still lies where it was received, so that a large one is not
/// copied first. The calling thread waits meanwhile, but need not be the one that reads. What it
/// throws comes out of the call.
class ReplyReader {
public:
    virtual void read(std::string_view payload) = 0;

protected:
    ~ReplyReader() = default;
};

/// One end of a conversation: what carries frames to the peer. Implemented by Connection (who
/// calls) and by ServedConnection (who is called).
class OKV_EXPORT MessagePort : public Object {
public:
    /// Sends a request frame and waits until the reader has taken its reply. Throws
    /// ConnectionError.
    virtual void callAndRead(std::string& frame, ReplyReader& reader) = 0;
    /// The same with the reply's payload as it is.
    std::string call(std::string& frame);
    /// Sends a request frame without waiting for anything; its reply is dropped.
    virtual void post(std::string frame) = 0;
    /// Sends a frame that answers a request; safe from any thread; a dead peer's is dropped.
    virtual void sendAnswer(std::string frame) = 0;
    /// The same for a frame that ends with bytes which lie elsewhere, or with none. The frame is
    /// the caller's again afterwards, to make the next one in its memory, and holds nothing to rely
    /// on.
    virtual void sendAnswerFrom(std::string& frame, std::string_view rest);
    /// Who is at the other end, as the kernel recorded it.
    virtual const PeerIdentity& peer() const noexcept = 0;
    /// Notes that the peer may now address the exported object.
    virtual void lend(std::uint64_t object) = 0;
};

/// An object that lives with the peer: a reference to the connection and the object's number there.
class OKV_EXPORT RemoteObject final : public Object {
public:
    /// `number`: as the peer counts its objects; kRootObject for the one that it vends.
    RemoteObject(Ref<MessagePort> port, std::uint64_t number)
        : port_(std::move(port)), number_(number) {}

    /// Valid as long as this object.
    MessagePort& port() const noexcept { return *port_; }
    /// The object's number with its peer.
    std::uint64_t number() const noexcept { return number_; }

private:
    Ref<MessagePort> port_;
    std::uint64_t number_;
};

/// A request that a peer sent. It may be kept and answered later, from any thread; one that is
/// given up unanswered answers a failure by itself, so that no caller waits for ever.
class OKV_EXPORT IncomingRequest final : public Object {
public:
    /// Copies the payload. Throws CborError when it is no request.
    IncomingRequest(Ref<MessagePort> port, std::uint32_t serial, std::string_view payload);

    /// The number of the object that it is for.
    std::uint64_t object() const noexcept { return object_; }
    /// The method asked for, with its colons; valid as long as the request.
    std::string_view selector() const noexcept { return selector_; }
    /// One character an argument: "@" object, "i" int, "c" BOOL.
    std::string_view types() const noexcept { return types_; }
    /// Of the payload, in bytes.
    std::size_t size() const noexcept { return payload_.size(); }
    /// Who asks, as the kernel recorded it.
    const PeerIdentity& caller() const noexcept { return port_->peer(); }
    /// The connection that it came by; retained by the request.
    MessagePort& port() const noexcept { return *port_; }
    /// Stands at the first argument.
    CborReader arguments() const noexcept { return arguments_; }
    /// Memory for the text of one argument, kept from the requests before.
    std::string& spareText() noexcept { return spareText_; }
    /// The object that a reference among the arguments names.
    Ref<RemoteObject> remote(std::uint64_t number) const {
        return make<RemoteObject>(port_, number);
    }

    /// Answers with a finished reply or failure frame, whose serial number is set here. A request
    /// is answered once, by this or by `fail`. Any thread.
    void answer(std::string frame);
    /// The same with a frame that ends with `rest`; its memory is the caller's again afterwards.
    void answerFrom(std::string& frame, std::string_view rest = {});
    /// Answers why the request was not understood; as `answer`.
    void fail(std::string_view why);

protected:
    ~IncomingRequest() override;

private:
    friend class ServedConnection;
    // Memory of a larger request is not kept for the next one.
    static constexpr std::size_t kKeptPayload = 4096;

    // Makes another request of one that was cleared. Throws as the constructor.
    void renew(Ref<MessagePort> port, std::uint32_t serial, std::string_view payload);
    // Lets go of the connection; answers whether it can be renewed.
    bool clear() noexcept;

    Ref<MessagePort> port_;
    std::uint32_t serial_ = 0;
    std::string payload_;
    std::uint64_t object_ = 0;
    std::string_view selector_;
    std::string_view types_;
    CborReader arguments_{{}};
    std::string spareText_;
    bool answered_ = true;  // until it is known to be a request
};

/// The conversation that the calling thread is serving, for methods that must know who asks or must
/// say why they answer nothing.
class OKV_EXPORT Invocation {
public:
    /// The calling thread serves the request from now on until this goes; they may nest.
    explicit Invocation(IncomingRequest& request) noexcept;
    Invocation(const Invocation&) = delete;
    Invocation& operator=(const Invocation&) = delete;
    ~Invocation();

    /// Null outside of a request.
    static Invocation* current() noexcept;

    /// Valid while it is served.
    IncomingRequest& request() const noexcept { return request_; }
    /// Who asks.
    const PeerIdentity& caller() const noexcept { return request_.caller(); }
    /// Has the reason sent beside the method's result, which should be its zero value.
    void refuse(Refusal::Kind kind, std::string reason) {
        refusal_ = Refusal{kind, std::move(reason)};
    }
    /// The last reason given; none when the request was not refused.
    const std::optional<Refusal>& refusal() const noexcept { return refusal_; }
    /// Answers with a value that stays where it is, in place of the one that the method returns: a
    /// large one need not be copied. It must stay unchanged until the reply is sent.
    void answerWith(const Value& result) noexcept { result_ = &result; }
    /// Null where the method's own result counts.
    const Value* result() const noexcept { return result_; }
    /// The bytes that end the reply and are not in its frame, because they need not be copied; none
    /// mostly.
    std::string_view rest() const noexcept { return rest_; }
    /// Leaves these bytes out of the reply's frame.
    void leaveOut(std::string_view rest) noexcept { rest_ = rest; }

private:
    IncomingRequest& request_;
    Invocation* outer_;
    std::optional<Refusal> refusal_;
    const Value* result_ = nullptr;
    std::string_view rest_;
};

/// Who handles the requests to one object.
using RequestHandler = void (*)(void* target, IncomingRequest& request);

/// The objects of this process that were handed to peers by reference. They are not retained:
/// `withdraw` belongs in their `dealloc`, and a request for what is gone or going is answered as
/// for an unknown object.
class OKV_EXPORT ExportedObjects {
public:
    struct Found {
        Ref<Object> owner;
        RequestHandler handler = nullptr;
        void* target = nullptr;
    };

    /// The object's number, from 1 on, the same at every call until it is withdrawn. All
    /// operations: any thread.
    static std::uint64_t add(Object& owner, RequestHandler handler, void* target);
    /// Takes the object away; does nothing for one that is not there.
    static void withdraw(const Object& owner);
    /// The object under a number, with a reference to it; none when it is gone or going.
    static std::optional<Found> find(std::uint64_t number);
};

/// Begins a request frame in the place of what `frame` held; its arguments are appended next.
/// `types` has a character for each of them.
OKV_EXPORT void beginRequest(std::string& frame, std::uint64_t object, std::string_view selector,
                             std::string_view types);
/// The same with the selector and the types as the items that they are sent as.
OKV_EXPORT void beginRequest(std::string& frame, std::uint64_t object,
                             std::string_view selectorAndTypes);
/// Completes a request frame, not numbered yet. Throws std::length_error when it is too large.
OKV_EXPORT void finishRequest(std::string& frame);
/// The frame that a client greets with.
OKV_EXPORT std::string encodeHello();
/// What the only item of a failure or a farewell says. Throws CborError for what is neither.
OKV_EXPORT std::string readReason(std::string_view payload);
/// A frame that tells no more than why: a failure (of the request with this serial number, which
/// was not understood) or a farewell (0).
OKV_EXPORT std::string encodeReason(FrameKind kind, std::uint32_t serial, std::string_view why);
/// Reads what stands behind a reply's result; none when nothing does. Throws CborError, also for a
/// kind that there is not and for bytes that are left over.
OKV_EXPORT std::optional<Refusal> readRefusal(CborReader& reader);
/// Appends a refusal behind a reply's result; nothing for none.
OKV_EXPORT void appendRefusal(std::string& frame, const std::optional<Refusal>& refusal);

}  // namespace okv
