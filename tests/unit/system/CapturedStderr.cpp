#include "CapturedStderr.h"

#include <fcntl.h>
#include <array>

CapturedStderr::CapturedStderr() : saved_(dup(STDERR_FILENO)) {
    std::array<int, 2> ends{};
    // O_DIRECT keeps writes apart, O_NONBLOCK tells that nothing is left.
    if (pipe2(ends.data(), O_DIRECT | O_NONBLOCK | O_CLOEXEC) != 0) return;
    reader_ = ends[0];
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
}

CapturedStderr::~CapturedStderr() {
    dup2(saved_, STDERR_FILENO);
    close(saved_);
    close(reader_);
}

std::string CapturedStderr::nextWrite() {
    std::array<char, 4096> buffer{};
    const auto count = read(reader_, buffer.data(), buffer.size());
    return count > 0 ? std::string(buffer.data(), static_cast<std::size_t>(count)) : std::string();
}
