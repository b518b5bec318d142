#pragma once

#include <OKVPlatform/ipc/Protocol.h>

#include <cstddef>
#include <string>

/// How many bytes a call takes on our wire, by the code that sends it: raw moves as many.
namespace bench {

/// Takes frames and only looks at their size.
class Scales final : public okv::MessagePort {
public:
    void callAndRead(std::string&, okv::ReplyReader&) override {}
    void post(std::string frame) override { size = frame.size(); }
    void sendAnswer(std::string) override {}
    const okv::PeerIdentity& peer() const noexcept override { return peer_; }
    void lend(std::uint64_t) override {}

    std::size_t size = 0;

private:
    okv::PeerIdentity peer_{};
};

template <auto Method, class... Arguments>
std::size_t requestSize(const Arguments&... arguments) {
    const auto scales = okv::make<Scales>();
    const auto remote = okv::make<okv::RemoteObject>(scales, okv::kRootObject);
    okv::post<Method>(*remote, arguments...);
    return scales->size;
}

inline std::size_t replySize(const okv::Value& result) {
    std::string frame;
    okv::beginFrame(frame, okv::FrameKind::reply);
    okv::CborWriter(frame).value(result);
    okv::finishFrame(frame, 0, 0);
    return frame.size();
}

}  // namespace bench
