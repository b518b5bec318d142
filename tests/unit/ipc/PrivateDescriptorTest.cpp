#include <OKVPlatform/ipc/PrivateDescriptor.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <future>
#include <optional>
#include <thread>

using okv::PrivateDescriptor;

namespace {

bool isOpen(int descriptor) {
    return fcntl(descriptor, F_GETFD) != -1;
}

int openSomething() {
    return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

/// Another thread that forks at once; the child looks whether it has the descriptor.
class Forker {
public:
    explicit Forker(int descriptor)
        : thread_([this, descriptor] {
              const pid_t child = fork();
              if (child == 0) _exit(isOpen(descriptor) ? 1 : 0);
              forked_.set_value();
              int status = -1;
              waitpid(child, &status, 0);
              childHadIt_ = status != 0;
          }) {}
    bool hasForkedWithin(std::chrono::milliseconds time) {
        return future_.wait_for(time) == std::future_status::ready;
    }
    bool childHadIt() {
        thread_.join();
        return childHadIt_;
    }

private:
    std::promise<void> forked_;
    std::future<void> future_ = forked_.get_future();
    bool childHadIt_ = true;
    std::thread thread_;
};

}  // namespace

TEST(APrivateDescriptor, IsNoneInAForkedChildAndStaysInTheParent) {
    const PrivateDescriptor descriptor(openSomething());
    const int number = descriptor.get();
    EXPECT_FALSE(Forker(number).childHadIt());
    EXPECT_TRUE(isOpen(number));
    EXPECT_EQ(descriptor.get(), number);
}

TEST(APrivateDescriptor, ThatIsJustBeingOpenedIsNoneInTheChildOfAThreadThatForks) {
    std::optional<Forker> forker;
    const auto descriptor = PrivateDescriptor::opened([&] {
        const int made = openSomething();
        forker.emplace(made);
        EXPECT_FALSE(forker->hasForkedWithin(std::chrono::milliseconds(50))) << "it did not wait";
        return made;
    });
    EXPECT_FALSE(forker->childHadIt());
    EXPECT_TRUE(descriptor.isValid());
}

TEST(APrivateDescriptor, ThatCannotBeOpenedIsNoneAndTheReasonStays) {
    const auto descriptor =
        PrivateDescriptor::opened([] { return open("/nowhere/at/all", O_RDONLY | O_CLOEXEC); });
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(descriptor.isValid());
}
