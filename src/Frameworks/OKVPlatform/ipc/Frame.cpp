#include <OKVPlatform/ipc/Frame.h>

#include <endian.h>

#include <algorithm>
#include <cstring>

namespace okv {

namespace {

constexpr std::size_t kSmallBuffer = 4096;
// A buffer that a large frame made grow beyond this is given back once it is empty.
constexpr std::size_t kKeptBuffer = 64 * 1024;

std::uint32_t numberAt(const char* bytes) {
    std::uint32_t number = 0;
    std::memcpy(&number, bytes, sizeof number);
    return be32toh(number);
}

void putNumber(char* bytes, std::uint32_t number) {
    number = htobe32(number);
    std::memcpy(bytes, &number, sizeof number);
}

}  // namespace

std::size_t beginFrame(std::string& out, FrameKind kind) {
    const auto start = out.size();
    const char header[kFrameHeaderSize] = {0, 0, 0, 0, static_cast<char>(kind)};
    out.append(header, sizeof header);
    return start;
}

void finishFrame(std::string& out, std::size_t start, std::uint32_t serial, std::size_t left) {
    const auto payload = out.size() - start - kFrameHeaderSize + left;
    if (payload > kMaxFramePayload)
        throw std::length_error("okv: a message larger than 16 MiB cannot be sent");
    putNumber(&out[start], static_cast<std::uint32_t>(payload));
    putNumber(&out[start + 5], serial);
}

void setFrameSerial(std::string& frame, std::uint32_t serial) {
    putNumber(&frame[5], serial);
}

// How much the frame that is coming needs in all, as far as its header is known.
std::size_t FrameBuffer::wanted() const noexcept {
    if (end_ - begin_ < kFrameHeaderSize) return kSmallBuffer;
    return std::max(kSmallBuffer, kFrameHeaderSize + numberAt(&bytes_[begin_]));
}

std::size_t FrameBuffer::missing() const noexcept {
    const auto held = end_ - begin_;
    if (held < kFrameHeaderSize) return 0;
    const auto whole = kFrameHeaderSize + numberAt(&bytes_[begin_]);
    return whole > held ? whole - held : 0;
}

void FrameBuffer::move(std::size_t capacity) {
    auto moved = std::make_unique_for_overwrite<char[]>(capacity);
    if (end_ != begin_) std::memcpy(moved.get(), &bytes_[begin_], end_ - begin_);
    bytes_ = std::move(moved);
    capacity_ = capacity;
    end_ -= begin_;
    begin_ = 0;
}

void FrameBuffer::trim() noexcept {
    if (!empty()) return;
    begin_ = end_ = 0;
    const auto kept = keepsForLike_ ? std::max(kKeptBuffer, 2 * lastFrame_) : kKeptBuffer;
    if (capacity_ > kept) bytes_.reset(), capacity_ = 0;
}

std::span<char> FrameBuffer::room() {
    trim();
    const auto held = end_ - begin_;
    const auto goal = std::min(wanted(), std::max(kSmallBuffer, held * 4));
    if (goal > capacity_) {
        move(goal);
    } else if (begin_ != 0 && (end_ == capacity_ || begin_ + wanted() > capacity_)) {
        std::memmove(bytes_.get(), &bytes_[begin_], held);
        begin_ = 0;
        end_ = held;
    }
    if (end_ == capacity_) move(capacity_ * 2);
    return {&bytes_[end_], capacity_ - end_};
}

std::optional<Frame> FrameBuffer::next() {
    if (end_ - begin_ < kFrameHeaderSize) return std::nullopt;
    const char* header = &bytes_[begin_];
    const std::size_t length = numberAt(header);
    const auto kind = static_cast<std::uint8_t>(header[4]);
    if (kind < static_cast<std::uint8_t>(FrameKind::hello) ||
        kind > static_cast<std::uint8_t>(FrameKind::farewell))
        throw FrameError("a frame of unknown kind " + std::to_string(kind));
    if (length > maxPayload_)
        throw FrameError("a frame of " + std::to_string(length) + " bytes, more than " +
                         std::to_string(maxPayload_));
    if (end_ - begin_ < kFrameHeaderSize + length) return std::nullopt;
    lastFrame_ = kFrameHeaderSize + length;
    begin_ += lastFrame_;
    return Frame{
        static_cast<FrameKind>(kind), numberAt(header + 5), {header + kFrameHeaderSize, length}};
}

}  // namespace okv
