#include <OKVPlatform/ipc/Protocol.h>
#include <OKVPlatform/values/ForkGuard.h>
#include <OKVPlatform/values/Lasting.h>

#include <mutex>
#include <unordered_map>

namespace okv {

namespace {

// At a fixed distance from the thread: there is no function to be called for its place.
[[gnu::tls_model("initial-exec")]] constinit thread_local Invocation* currentInvocation = nullptr;

struct Exports {
    struct Entry {
        Object* owner;
        RequestHandler handler;
        void* target;
    };
    ForkMutex mutex;
    std::uint64_t last = kRootObject;
    std::unordered_map<std::uint64_t, Entry> byNumber;
    std::unordered_map<const Object*, std::uint64_t> numbers;
};

Exports& exports() {
    static constinit OnDemand<Exports> all;
    return all.get();
}

bool isKindOfRefusal(std::int64_t kind) noexcept {
    return kind >= static_cast<std::int64_t>(Refusal::Kind::notAllowed) &&
           kind <= static_cast<std::int64_t>(Refusal::Kind::failed);
}

class Copy final : public ReplyReader {
public:
    void read(std::string_view payload) override { bytes = payload; }
    std::string bytes;
};

}  // namespace

void MessagePort::sendAnswerFrom(std::string& frame, std::string_view rest) {
    sendAnswer(std::move(frame.append(rest)));
}

std::string MessagePort::call(std::string& frame) {
    Copy copy;
    callAndRead(frame, copy);
    return std::move(copy.bytes);
}

IncomingRequest::IncomingRequest(Ref<MessagePort> port, std::uint32_t serial,
                                 std::string_view payload) {
    renew(std::move(port), serial, payload);
}

void IncomingRequest::renew(Ref<MessagePort> port, std::uint32_t serial, std::string_view payload) {
    port_ = std::move(port);
    serial_ = serial;
    payload_ = payload;
    arguments_ = CborReader(payload_);
    object_ = static_cast<std::uint64_t>(arguments_.integer());
    selector_ = arguments_.text();
    types_ = arguments_.text();
    answered_ = false;
}

// A request that is held here alone, and answered, is over.
bool IncomingRequest::clear() noexcept {
    if (retainCount() != 1 || !answered_) return false;
    port_ = nullptr;
    return payload_.capacity() <= kKeptPayload && spareText_.capacity() <= kKeptPayload;
}

IncomingRequest::~IncomingRequest() {
    if (!answered_ && !selector_.empty()) fail("the request was given up");
}

void IncomingRequest::answer(std::string frame) {
    answerFrom(frame);
}

void IncomingRequest::answerFrom(std::string& frame, std::string_view rest) {
    answered_ = true;
    setFrameSerial(frame, serial_);
    port_->sendAnswerFrom(frame, rest);
}

void IncomingRequest::fail(std::string_view why) {
    answered_ = true;
    port_->sendAnswer(encodeReason(FrameKind::failure, serial_, why));
}

Invocation::Invocation(IncomingRequest& request) noexcept
    : request_(request), outer_(currentInvocation) {
    currentInvocation = this;
}

Invocation::~Invocation() {
    currentInvocation = outer_;
}

Invocation* Invocation::current() noexcept {
    return currentInvocation;
}

std::uint64_t ExportedObjects::add(Object& owner, RequestHandler handler, void* target) {
    auto& all = exports();
    const std::lock_guard lock(all.mutex);
    const auto [at, isNew] = all.numbers.try_emplace(&owner, all.last + 1);
    if (isNew) all.byNumber.emplace(++all.last, Exports::Entry{&owner, handler, target});
    return at->second;
}

void ExportedObjects::withdraw(const Object& owner) {
    auto& all = exports();
    const std::lock_guard lock(all.mutex);
    const auto at = all.numbers.find(&owner);
    if (at == all.numbers.end()) return;
    all.byNumber.erase(at->second);
    all.numbers.erase(at);
}

std::optional<ExportedObjects::Found> ExportedObjects::find(std::uint64_t number) {
    auto& all = exports();
    const std::lock_guard lock(all.mutex);
    const auto at = all.byNumber.find(number);
    if (at == all.byNumber.end()) return std::nullopt;
    auto owner = Ref<Object>::unlessDying(at->second.owner);
    if (!owner) return std::nullopt;
    return Found{std::move(owner), at->second.handler, at->second.target};
}

void beginRequest(std::string& frame, std::uint64_t object, std::string_view selector,
                  std::string_view types) {
    beginRequest(frame, object, {});
    CborWriter writer(frame);
    writer.text(selector);
    writer.text(types);
}

void beginRequest(std::string& frame, std::uint64_t object, std::string_view selectorAndTypes) {
    frame.clear();
    beginFrame(frame, FrameKind::request);
    CborWriter(frame).integer(static_cast<std::int64_t>(object));
    frame.append(selectorAndTypes);
}

void finishRequest(std::string& frame) {
    finishFrame(frame, 0, 0);
}

std::string encodeHello() {
    std::string frame;
    beginFrame(frame, FrameKind::hello);
    CborWriter(frame).integer(kWireVersion);
    finishFrame(frame, 0, 0);
    return frame;
}

std::string readReason(std::string_view payload) {
    CborReader reader(payload);
    std::string why(reader.text());
    reader.expectEnd();
    return why;
}

std::string encodeReason(FrameKind kind, std::uint32_t serial, std::string_view why) {
    std::string frame;
    beginFrame(frame, kind);
    CborWriter(frame).text(why);
    finishFrame(frame, 0, serial);
    return frame;
}

namespace detail {

std::string& scratchFrame() {
    [[gnu::tls_model("initial-exec")]] thread_local std::string frame;
    if (frame.capacity() > 64 * 1024) frame = std::string();
    return frame;
}

void throwBadReply(std::string_view selector, const CborError& error) {
    throw ConnectionError(ConnectionError::Kind::badData,
                          "the answer to " + std::string(selector) + ": " + error.what());
}

}  // namespace detail

std::optional<Refusal> readRefusal(CborReader& reader) {
    if (reader.atEnd()) return std::nullopt;
    const auto start = reader.offset();
    const auto kind = reader.integer();
    if (!isKindOfRefusal(kind)) throw CborError("a refusal of unknown kind", start);
    Refusal refusal{static_cast<Refusal::Kind>(kind), std::string(reader.text())};
    reader.expectEnd();
    return refusal;
}

void appendRefusal(std::string& frame, const std::optional<Refusal>& refusal) {
    if (!refusal) return;
    CborWriter writer(frame);
    writer.integer(static_cast<std::int64_t>(refusal->kind));
    writer.text(refusal->reason);
}

}  // namespace okv
