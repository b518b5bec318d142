#include "PublicationFixture.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/syscall.h>

#include <atomic>
#include <thread>

// A kernel that has no memory, or no watches, left for one more descriptor. This program's own
// epoll_ctl stands before the system's and refuses when it is told to.

namespace {

std::atomic<int> refusedOperation{0};

/// While it lives, the kernel refuses the operation.
class Refusing {
public:
    explicit Refusing(int operation) { refusedOperation = operation; }
    Refusing(const Refusing&) = delete;
    Refusing& operator=(const Refusing&) = delete;
    ~Refusing() { refusedOperation = 0; }
};

}  // namespace

extern "C" __attribute__((visibility("default"))) int epoll_ctl(int set, int operation,
                                                                int descriptor,
                                                                epoll_event* event) noexcept {
    if (operation == refusedOperation) {
        errno = ENOSPC;
        return -1;
    }
    return static_cast<int>(syscall(SYS_epoll_ctl, set, operation, descriptor, event));
}

namespace ipctest {

TEST(Unwatched, ADescriptorThatTheKernelDoesNotWatchIsToldAndForgotten) {
    const auto loop = RunLoop::current();
    const okv::PrivateDescriptor file(open("/dev/null", O_RDONLY | O_CLOEXEC));
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const okv::PrivateDescriptor out(ends[0]);
    const okv::PrivateDescriptor in(ends[1]);
    int told = 0;
    const auto watch = [&] {
        return loop->watch(out.get(), EPOLLIN, [&](std::uint32_t) { ++told; });
    };
    {
        const Refusing none(EPOLL_CTL_ADD);
        EXPECT_EQ(watch(), 0U);
    }
    const auto id = watch();
    ASSERT_NE(id, 0U);
    ASSERT_EQ(write(in.get(), "x", 1), 1);
    EXPECT_TRUE(loop->rewatch(id, 0));
    {
        const Refusing none(EPOLL_CTL_ADD);
        EXPECT_FALSE(loop->rewatch(id, EPOLLIN));
    }
    loop->dispatch();
    EXPECT_EQ(told, 0);
    EXPECT_TRUE(loop->rewatch(id, EPOLLIN)) << "what failed can be tried again";
    {
        const Refusing none(EPOLL_CTL_MOD);
        EXPECT_FALSE(loop->rewatch(id, EPOLLIN | EPOLLPRI));
    }
    loop->dispatch();
    EXPECT_EQ(told, 1) << "a change that failed leaves it as it was";
    loop->unwatch(id);
}

TEST_F(PublicationTest, AClientThatCannotBeWatchedIsToldSoAndTheOthersAreServed) {
    publish();
    auto before = greeted();
    RawClient unlucky(kName);
    {
        const Refusing none(EPOLL_CTL_ADD);
        EXPECT_EQ(farewellTo(unlucky), "the server has no room to watch one more connection");
    }
    EXPECT_TRUE(isServed(before));
    auto after = greeted();
    EXPECT_TRUE(isServed(after));
    EXPECT_EQ(publication_->connectionCount(), 2U);
}

TEST_F(PublicationTest, AClientWhoseOutputCannotBeWaitedForIsClosedAndTheOthersAreServed) {
    publish();
    auto deaf = greeted();
    auto other = greeted();
    const auto large = RawClient::request(1, "echo", std::string(1U << 20, 'x'));
    std::string_view left = large;
    const Refusing none(EPOLL_CTL_MOD);
    EXPECT_TRUE(serveUntil([&] {
        left.remove_prefix(deaf.send(left));
        return publication_->connectionCount() == 1;
    }));
    EXPECT_TRUE(isServed(other));
}

TEST_F(PublicationTest, ANameWhoseSocketCannotBeWatchedIsNotPublished) {
    std::string why;
    {
        RunLoop::current();
        const Refusing none(EPOLL_CTL_ADD);
        EXPECT_FALSE(Publication::publish(kName, {&Root::handle, &root_, nullptr}, {}, why));
    }
    EXPECT_EQ(why, "the system has no room to watch the name's socket");
    publish();  // the name is free
}

TEST_F(PublicationTest, AConnectionThatCannotBeWatchedIsNoneAndTheReasonIsTold) {
    publish();
    RunLoop::current()->dispatch();  // a loop that is run
    std::string why;
    {
        const Refusing none(EPOLL_CTL_ADD);
        EXPECT_FALSE(Connection::connectionWithRegisteredName(kName, std::nullopt, &why));
    }
    EXPECT_EQ(why, "the system has no room to watch one more connection");
    EXPECT_TRUE(Connection::connectionWithRegisteredName(kName, std::nullopt, &why));
}

TEST_F(PublicationTest, AConnectionIsWatchedFromTheFirstRunOfItsLoopOnAndEndsWhereItCannotBe) {
    publish();
    std::thread([] {
        const auto loop = RunLoop::current();  // which nobody has run
        const Refusing none(EPOLL_CTL_ADD);
        const auto connection = Connection::connectionWithRegisteredName(kName);
        ASSERT_TRUE(connection);
        EXPECT_TRUE(connection->isValid());
        RunLoop::current()->dispatch();
        EXPECT_FALSE(connection->isValid());
    }).join();
}

}  // namespace ipctest
