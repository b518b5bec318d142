#pragma once

#include <OKVPlatform/ipc/Message.h>
#include <OKVPlatform/ipc/Protocol.h>

#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace faults {

/// Keeps the request frames instead of sending them.
class RecordingPort final : public okv::MessagePort {
public:
    void callAndRead(std::string& frame, okv::ReplyReader&) override {
        frames.push_back(frame);
        throw okv::ConnectionError(okv::ConnectionError::Kind::notSent, "only recorded");
    }
    void post(std::string frame) override { frames.push_back(std::move(frame)); }
    void sendAnswer(std::string) override {}
    const okv::PeerIdentity& peer() const noexcept override { return peer_; }
    void lend(std::uint64_t) override {}

    std::vector<std::string> frames;

private:
    okv::PeerIdentity peer_{};
};

/// Random damage, the same in every run.
class Mutator {
public:
    explicit Mutator(std::uint32_t seed) : random_(seed) {}

    std::size_t below(std::size_t limit) {
        return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random_);
    }
    /// One to three changes: bytes set, bits turned, bytes taken out, put in, or doubled, or the
    /// end cut off.
    std::string mutated(std::string bytes) {
        for (auto left = 1 + below(3); left > 0; --left) mutate(bytes);
        return bytes;
    }

    /// The same of a frame; mostly of its payload alone, so that what reads frames does not already
    /// end the conversation.
    std::string mutatedFrame(const std::string& frame) {
        if (below(8) == 0) return mutated(frame);
        std::string made = frame.substr(0, okv::kFrameHeaderSize);
        made += mutated(frame.substr(okv::kFrameHeaderSize));
        const auto serial = static_cast<std::uint8_t>(made[okv::kFrameHeaderSize - 1]);
        okv::finishFrame(made, 0, serial);
        return made;
    }

private:
    void mutate(std::string& bytes) {
        if (bytes.empty()) bytes.push_back('\0');
        const auto at = below(bytes.size());
        const auto some = 1 + below(8);
        switch (below(6)) {
            case 0:
                bytes[at] = static_cast<char>(below(256));
                break;
            case 1:
                bytes[at] = static_cast<char>(bytes[at] ^ (1 << below(8)));
                break;
            case 2:
                bytes.erase(at, some);
                break;
            case 3:
                bytes.insert(at, std::string(some, kTelling[below(sizeof kTelling)]));
                break;
            case 4:
                bytes.insert(at, bytes.substr(at, some));
                break;
            default:
                bytes.resize(at);
        }
    }

    // Bytes that begin something in the payload: containers, tags, lengths, breaks.
    static constexpr char kTelling[] = {'\x00', '\x1B', '\x5A', '\x7B', '\x81', '\x9B', '\x9F',
                                        '\xA1', '\xBB', '\xC1', '\xD9', '\xF7', '\xFB', '\xFF'};
    std::mt19937 random_;
};

/// A frame with whatever numbers in its header.
inline std::string rawFrame(std::uint32_t length, unsigned kind, std::uint32_t serial,
                            std::string_view payload) {
    std::string frame;
    for (int shift = 24; shift >= 0; shift -= 8)
        frame.push_back(static_cast<char>(length >> shift));
    frame.push_back(static_cast<char>(kind));
    for (int shift = 24; shift >= 0; shift -= 8)
        frame.push_back(static_cast<char>(serial >> shift));
    return frame.append(payload);
}
inline std::string rawFrame(unsigned kind, std::uint32_t serial, std::string_view payload) {
    return rawFrame(static_cast<std::uint32_t>(payload.size()), kind, serial, payload);
}

}  // namespace faults
