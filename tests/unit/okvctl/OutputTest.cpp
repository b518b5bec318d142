#include "Output.h"

#include "ToolError.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <csignal>

using okvctl::Output;
using okvctl::ToolError;

namespace {

struct Pipe {
    Pipe() {
        if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    }
    ~Pipe() {
        close(ends[0]);
        close(ends[1]);
    }
    std::string text() const {
        char buffer[1024];
        const auto count = read(ends[0], buffer, sizeof buffer);
        return {buffer, static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
    }
    int ends[2];
};

}  // namespace

TEST(Output, AStringAloneIsPrintedByteForByteWhereNoTerminalReads) {
    const Pipe pipe;
    Output out(pipe.ends[1]);
    out.value("a\x1B\xFF\n");
    out.flush();
    EXPECT_EQ(pipe.text(), "a\x1B\xFF\n\n");
}

TEST(Output, ATerminalIsNotMadeToAct) {
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (terminal < 0 || grantpt(terminal) != 0 || unlockpt(terminal) != 0)
        GTEST_SKIP() << "no pseudo-terminal to be had";
    const int inner = open(ptsname(terminal), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(inner, 0);
    Output out(inner);
    out.value("a\x1B[31m");
    out.flush();
    char buffer[64];
    const auto count = read(terminal, buffer, sizeof buffer);
    EXPECT_EQ(std::string(buffer, static_cast<std::size_t>(count)), "\"a\\u001b[31m\"\r\n");
    close(inner);
    close(terminal);
}

TEST(Output, AReaderThatWentAwayIsNoError) {
    const auto before = std::signal(SIGPIPE, SIG_IGN);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    close(ends[0]);
    Output out(ends[1]);
    out.line("x");
    EXPECT_NO_THROW(out.flush());
    EXPECT_TRUE(out.isBroken());
    close(ends[1]);
    std::signal(SIGPIPE, before);
}

TEST(Output, AFullDiskIsAnError) {
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(full, 0);
    Output out(full);
    out.line("x");
    EXPECT_THROW(out.flush(), ToolError);
    close(full);
}
