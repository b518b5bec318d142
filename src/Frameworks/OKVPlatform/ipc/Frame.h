#pragma once

#include <OKVPlatform/Export.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

namespace okv {

/// The version of the wire that this library speaks; the first frame of either side tells it.
inline constexpr std::int64_t kWireVersion = 1;
/// The largest payload a frame may announce.
inline constexpr std::size_t kMaxFramePayload = 16U << 20;
/// Length of the payload (4 bytes), kind (1), serial (4), the numbers with the high byte first.
inline constexpr std::size_t kFrameHeaderSize = 9;

enum class FrameKind : std::uint8_t {
    hello = 1,     ///< the first frame of either side
    request = 2,   ///< a message to an object
    reply = 3,     ///< its result
    failure = 4,   ///< it was not understood, and why
    farewell = 5,  ///< why the sender is about to close
};

struct Frame {
    FrameKind kind;
    std::uint32_t serial;
    std::string_view payload;
};

/// Bytes that are no frame; the connection they came from cannot be read any further.
class OKV_EXPORT FrameError final : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Starts a frame at the end of `out`; answers where it begins. Its payload is appended next.
OKV_EXPORT std::size_t beginFrame(std::string& out, FrameKind kind);
/// Completes the frame that began at `start` with its length and serial number. Throws
/// std::length_error when the payload is larger than a frame may be.
/// `left`: bytes of the payload that follow and are not in `out`.
OKV_EXPORT void finishFrame(std::string& out, std::size_t start, std::uint32_t serial,
                            std::size_t left = 0);
/// Numbers a finished frame anew.
OKV_EXPORT void setFrameSerial(std::string& frame, std::uint32_t serial);

/// Bytes as they come from a socket, cut into frames. It grows with what has really come, not with
/// what a header announces, and gives a large frame's memory back.
class OKV_EXPORT FrameBuffer {
public:
    /// `maxPayload`: in bytes; a frame that announces more is refused.
    explicit FrameBuffer(std::size_t maxPayload = kMaxFramePayload) : maxPayload_(maxPayload) {}

    /// Where the next bytes may be written, never empty; valid until `added`, which must follow.
    /// Invalidates frames handed out before.
    std::span<char> room();
    /// Tells how many bytes were written there, 0 included.
    void added(std::size_t count) noexcept { end_ += count; }

    /// The next whole frame; none when its bytes are not all there. Throws FrameError for what is
    /// no frame.
    std::optional<Frame> next();

    /// Whether no byte is left of what was added.
    bool empty() const noexcept { return begin_ == end_; }
    /// Bytes that the frame which has begun still lacks; 0 while its length is not known.
    std::size_t missing() const noexcept;
    /// Gives a large frame's memory back, once it has been taken. Invalidates frames handed out
    /// before.
    void trim() noexcept;
    /// From now on a large frame's memory is kept until a small one comes: who is sent one is often
    /// sent more.
    void keepForLikeFrames() noexcept { keepsForLike_ = true; }

private:
    std::size_t wanted() const noexcept;
    void move(std::size_t capacity);

    std::size_t maxPayload_;
    std::unique_ptr<char[]> bytes_;
    std::size_t capacity_ = 0;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    std::size_t lastFrame_ = 0;
    bool keepsForLike_ = false;
};

}  // namespace okv
