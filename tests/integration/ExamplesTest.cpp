#include "OKVDataAdmin_protocol.h"
#include "ServerProcess.h"

#include "support/DataServer.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>
#include <string>

// The examples, run as they are against a real server: what they print is what their readers
// expect.

using Data = OKVDataMng_protocol;
using Admin = OKVDataAdmin_protocol;
using okv::Value;

namespace {

constexpr char kKey[] = "dc-gui-colour";
constexpr int kLineWithinMilliseconds = 20000;

/// A running example: its lines, and an end of its standard input.
class Example {
public:
    explicit Example(const char* program) {
        int input[2], output[2];
        if (pipe2(input, O_CLOEXEC) != 0 || pipe2(output, O_CLOEXEC) != 0)
            throw std::runtime_error("no pipe");
        pid_ = fork();
        if (pid_ < 0) throw std::runtime_error("no process");
        if (pid_ == 0) execute(program, input[0], output[1]);
        close(input[0]);
        close(output[1]);
        input_ = input[1];
        output_ = output[0];
    }
    ~Example() {
        if (pid_ > 0) end();
        close(output_);
    }
    Example(const Example&) = delete;
    Example& operator=(const Example&) = delete;

    /// Reads on until the line comes; false when it does not.
    bool prints(const std::string& line) {
        for (;;) {
            const auto end = text_.find('\n');
            if (end == std::string::npos) {
                if (!readMore()) return false;
                continue;
            }
            const auto got = text_.substr(0, end);
            text_.erase(0, end + 1);
            if (got == line) return true;
        }
    }
    void stop() {
        kill(pid_, SIGSTOP);
        int status = 0;
        waitpid(pid_, &status, WUNTRACED);
    }
    void resume() const { kill(pid_, SIGCONT); }
    void endInput() { close(std::exchange(input_, -1)); }
    int wait() {
        if (pid_ <= 0) return -1;
        int status = 0;
        waitpid(std::exchange(pid_, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

private:
    [[noreturn]] static void execute(const char* program, int input, int output) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(input, STDIN_FILENO);
        dup2(output, STDOUT_FILENO);
        execl(program, program, kKey, nullptr);
        _exit(127);
    }
    void end() {
        kill(pid_, SIGKILL);
        wait();
    }
    bool readMore() {
        char bytes[512];
        pollfd entry{output_, POLLIN, 0};
        if (poll(&entry, 1, kLineWithinMilliseconds) <= 0) return false;
        const auto count = read(output_, bytes, sizeof bytes);
        if (count > 0) text_.append(bytes, static_cast<std::size_t>(count));
        return count > 0;
    }

    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
    std::string text_;
};

class Examples : public testing::Test {
protected:
    Examples() {
        start();
        change("blue", 1);
        // A second user, without a value of its own.
        okv::send<&Data::setUseridPT_applyUid>(*root_, 12345, 2);
    }
    void start() {
        if (!server_.start()) throw std::runtime_error("the data server did not start");
        root_ = support::connect();
    }
    void restart() {
        server_.signal(SIGKILL);
        server_.wait();
        start();
    }
    void change(const char* colour, std::int32_t user) {
        ASSERT_TRUE(okv::send<&Data::setOKVDataPT_value_appUid>(*root_, kKey, colour, user));
    }
    /// A switch whose notice nobody hears who does not read meanwhile: it is neither in the log's
    /// file of before, which observers hold open, nor in that of afterwards.
    void switchUnheardTo(std::int32_t user) {
        postMoreThanIsKept();
        switchTo(user);
        postMoreThanIsKept();
    }
    void postMoreThanIsKept() {
        okv::DistributedNotificationCenter center(server_.runtimeFolder());
        const std::string large(100000, ' ');
        for (int i = 0; i < 30; ++i) center.post("org.example.large", {}, large);
    }
    void switchTo(std::int32_t user) {
        ASSERT_TRUE(okv::send<&Admin::setCurrentUserIdPT_osUid>(
            *root_, Value(user), static_cast<std::int32_t>(getuid())));
    }

    ServerProcess server_;
    okv::Ref<okv::RemoteObject> root_;
};

}  // namespace

TEST_F(Examples, TheAgentShowsEveryChangeFollowsSwitchesAndLivesThroughRestarts) {
    Example agent(OKV_EXAMPLE_AGENT);
    ASSERT_TRUE(agent.prints("user 1: dc-gui-colour is blue"));
    change("green", 1);
    ASSERT_TRUE(agent.prints("user 1: dc-gui-colour is green"));
    switchTo(2);
    ASSERT_TRUE(agent.prints("user 2: dc-gui-colour is not set"));
    for (const auto* colour : {"red", "white"}) {
        restart();
        change(colour, 2);
        ASSERT_TRUE(agent.prints(std::string("user 2: dc-gui-colour is ") + colour));
    }
}

TEST_F(Examples, TheAgentFollowsASwitchWhoseNoticeItMissed) {
    Example agent(OKV_EXAMPLE_AGENT);
    ASSERT_TRUE(agent.prints("user 1: dc-gui-colour is blue"));
    agent.stop();
    switchUnheardTo(2);
    agent.resume();
    EXPECT_TRUE(agent.prints("user 2: dc-gui-colour is not set"));
}

TEST_F(Examples, TheLoopOfAnApplicationFollowsASwitchWhoseNoticeItMissed) {
    Example loop(OKV_EXAMPLE_POLL_LOOP);
    ASSERT_TRUE(loop.prints("dc-gui-colour is blue"));
    loop.stop();
    switchUnheardTo(2);
    loop.resume();
    EXPECT_TRUE(loop.prints("dc-gui-colour is not set"));
}

TEST_F(Examples, TheAgentTellsThatThereIsNoServer) {
    server_.signal(SIGKILL);
    server_.wait();
    Example agent(OKV_EXAMPLE_AGENT);
    EXPECT_EQ(agent.wait(), 1);
}

TEST_F(Examples, TheLoopOfAnApplicationServesTheSame) {
    Example loop(OKV_EXAMPLE_POLL_LOOP);
    ASSERT_TRUE(loop.prints("dc-gui-colour is blue"));
    change("green", 1);
    ASSERT_TRUE(loop.prints("dc-gui-colour is green"));
    switchTo(2);
    ASSERT_TRUE(loop.prints("dc-gui-colour is not set"));
    for (const auto* colour : {"red", "white"}) {
        restart();
        change(colour, 2);
        ASSERT_TRUE(loop.prints(std::string("dc-gui-colour is ") + colour));
    }
    loop.endInput();
    EXPECT_EQ(loop.wait(), 0);
}
