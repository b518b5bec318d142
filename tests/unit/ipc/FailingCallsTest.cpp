// What holds when a call of the system's fails, one after the other.
#include "PublicationFixture.h"

#include <OKVLog/OKVLog.h>
#include <OKVPlatform/ipc/NotificationLogReader.h>
#include <OKVPlatform/ipc/NotificationLogWriter.h>
#include <OKVPlatform/system/NSLog.h>

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <system_error>
#include <thread>

#include "../system/CapturedStderr.h"

#include "support/FailingCall.h"
#include "support/NotificationTesting.h"

using namespace ipctest;
using notification_test::Folder;
using Function = FailPlan::Function;
using Kind = FailPlan::Kind;

namespace {

/// Answers "echo:" with what it was given.
class Echo {
public:
    virtual ~Echo() = default;
    virtual okv::Value echo(const okv::Value& value) = 0;
};

}  // namespace

template <>
inline constexpr auto okv::protocol<Echo> = okv::protocolTable(okv::row<&Echo::echo>("echo:"));

namespace {

std::string helloWithRoot() {
    std::string frame;
    okv::beginFrame(frame, FrameKind::hello);
    okv::CborWriter out(frame);
    out.integer(okv::kWireVersion);
    out.boolean(true);
    okv::finishFrame(frame, 0, 0);
    return frame;
}

std::string replyOf(std::uint32_t serial, const okv::Value& value) {
    std::string frame;
    okv::beginFrame(frame, FrameKind::reply);
    okv::CborWriter(frame).value(value);
    okv::finishFrame(frame, 0, serial);
    return frame;
}

/// A connection whose peer has answered already.
struct AnsweredConnection {
    okv::PrivateDescriptor peer;
    okv::Ref<Connection> connection;

    explicit AnsweredConnection(const std::string& answers) {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
            throw std::runtime_error("no sockets");
        peer = okv::PrivateDescriptor(ends[0]);
        connection = Connection::connectionWithSocket(okv::PrivateDescriptor(ends[1]), {});
        answer(answers);
    }
    void answer(const std::string& frames) const {
        send(peer.get(), frames.data(), frames.size(), MSG_NOSIGNAL);
    }
};

bool isPosted(okv::NotificationLogWriter& writer, const char* name) {
    try {
        writer.post({name, {}, {}});
        return true;
    } catch (const okv::NotificationError& error) {
        EXPECT_EQ(error.kind(), okv::NotificationError::Kind::failed) << error.what();
        return false;
    }
}

/// The names that a reader finds.
std::vector<std::string> namesIn(okv::NotificationLogReader& reader) {
    std::vector<std::string> names;
    reader.refresh(true);
    while (const auto entry = reader.next()) {
        EXPECT_EQ(entry->sequence, entry->missedFrom) << "notices were missed";
        if (entry->notification) names.push_back(entry->notification->name);
    }
    return names;
}

}  // namespace

TEST(ARunLoopWithoutMemoryInTheSystem, SaysThatItCannotWatchADescriptor) {
    const auto loop = RunLoop::current();
    const okv::PrivateDescriptor ready(eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK));
    for (const int error : {ENOMEM, ENOSPC}) {
        FailingCall failing(Function::epollCtl, Kind::any, error, 1);
        failing.arm();
        int told = 0;
        EXPECT_EQ(loop->watch(ready.get(), EPOLLIN, [&](std::uint32_t) { ++told; }), 0U);
        const auto id = loop->watch(ready.get(), EPOLLIN, [&](std::uint32_t) { ++told; });
        EXPECT_TRUE(serveUntil([&] { return told > 0; }));
        loop->unwatch(id);
    }
}

TEST(ARunLoopWithoutMemoryInTheSystem, IsNotMade) {
    const auto count =
        forEachFailingCall(Function::epollCtl, Kind::any, ENOMEM, [](FailingCall& failing) {
            std::thread([&] {
                failing.arm();
                try {
                    RunLoop::current();
                    EXPECT_FALSE(failing.hasFailed());
                } catch (const std::system_error& error) {
                    EXPECT_EQ(error.code().value(), ENOMEM);
                }
            }).join();
        });
    EXPECT_EQ(count, 2U);
}

TEST(ARunLoopWithoutMemory, ForgetsAllTheSame) {
    const auto loop = RunLoop::current();
    const okv::PrivateDescriptor one(eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK));
    const okv::PrivateDescriptor other(eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK));
    const auto owner = okv::make<okv::Object>();
    int served = 0;
    loop->watch(
        one.get(), EPOLLIN, [&](std::uint32_t) { ++served; }, owner.get());
    loop->watch(
        other.get(), EPOLLIN, [&](std::uint32_t) { ++served; }, owner.get());
    loop->perform([&] { ++served; }, owner.get());
    loop->performAfter(
        std::chrono::milliseconds(0), [&] { ++served; }, owner.get());
    FailingCall failing(Function::allocate, Kind::any, ENOMEM, 1);
    failing.arm();
    loop->forget(owner.get());
    failing.disarm();
    EXPECT_EQ(failing.calls(), 0U);
    serveForAWhile();
    EXPECT_EQ(served, 0);
}

TEST(AConnectionWithoutMemory, FailsTheCallAndServesTheNextOrHasEnded) {
    const auto count =
        forEachFailingCall(Function::allocate, Kind::any, ENOMEM, [](FailingCall& failing) {
            const std::string text(100, 'x');
            const AnsweredConnection made(helloWithRoot());
            const auto root = made.connection->rootProxy();
            made.answer(replyOf(1, text));
            failing.arm();
            try {
                EXPECT_EQ(okv::send<&Echo::echo>(*root, text), okv::Value(text));
            } catch (const std::bad_alloc&) {
            } catch (const ConnectionError& error) {
                EXPECT_EQ(error.kind(), ConnectionError::Kind::outcomeUnknown) << error.what();
            }
            failing.disarm();
            // A call that had stayed linked would be answered in the next one's place.
            if (!made.connection->isValid()) return;
            made.answer(replyOf(2, text));
            EXPECT_EQ(okv::send<&Echo::echo>(*root, text), okv::Value(text));
        });
    EXPECT_GT(count, 0U);
}

TEST(APublication, EndsAConnectionWhoseAnswerCannotBeSent) {
    const RuntimeFolder folder;
    Root root;
    std::string why;
    const auto publication = Publication::publish(kName, {&Root::handle, &root, nullptr}, {}, why);
    ASSERT_TRUE(publication) << why;
    RawClient client(kName);
    client.greet();
    ASSERT_TRUE(serveUntil([&] { return client.next().has_value(); }));
    client.send(RawClient::request(1, "echo", 7));
    FailingCall failing(Function::write, Kind::socket, ENOBUFS, 1);
    failing.arm();
    ASSERT_TRUE(serveUntil([&] { return root.handled == 1; }));
    EXPECT_TRUE(failing.hasFailed());
    EXPECT_TRUE(serveUntil([&] {
        client.next();
        return client.isClosed();
    }));
}

// A poster that cannot read what others posted must not take it for a torn tail.
TEST(ANotificationLogThatCannotBeRead, LosesNoNotice) {
    for (const int error : {EIO, FailPlan::kShort}) {
        const auto count =
            forEachFailingCall(Function::read, Kind::file, error, [](FailingCall& failing) {
                const Folder folder;
                okv::NotificationLogReader reader(folder.path());
                reader.skipToEnd();
                okv::NotificationLogWriter others(folder.path(), {});
                for (const char* name : {"a", "b", "c"}) others.post({name, {}, {}});
                okv::NotificationLogWriter writer(folder.path(), {});
                std::vector<std::string> expected{"a", "b", "c"};
                failing.arm();
                if (isPosted(writer, "d")) expected.emplace_back("d");
                failing.disarm();
                EXPECT_TRUE(isPosted(writer, "e"));
                EXPECT_TRUE(isPosted(others, "f"));
                expected.insert(expected.end(), {"e", "f"});
                EXPECT_EQ(namesIn(reader), expected);
            });
        EXPECT_GT(count, 0U);
    }
}

TEST(AnObserverWithoutMemory, HearsEveryNoticeOnceAllTheSame) {
    const auto count =
        forEachFailingCall(Function::allocate, Kind::any, ENOMEM, [](FailingCall& failing) {
            const Folder folder;
            okv::DistributedNotificationCenter center(folder.path());
            const auto listener = okv::make<notification_test::Listener>(center);
            center.post("before", {}, 0);
            listener->numbers.reserve(8);
            listener->names.reserve(8);
            listener->observe({});
            for (int number = 1; number <= 3; ++number) center.post("n", {}, number);
            failing.arm();
            try {
                RunLoop::current()->dispatch();
            } catch (const std::bad_alloc&) {
            }
            failing.disarm();
            EXPECT_TRUE(support::serveUntil([&] { return listener->numbers.size() >= 3; }));
            EXPECT_EQ(listener->numbers, notification_test::numbersTo(3));
            EXPECT_EQ(listener->missing, 0U);
        });
    EXPECT_GT(count, 0U);
}

TEST(ANotificationLog, TakesANoticeThatIsWrittenInTwoPieces) {
    const auto count =
        forEachFailingCall(Function::write, Kind::file, FailPlan::kShort, [](FailingCall& failing) {
            const Folder folder;
            okv::NotificationLogReader reader(folder.path());
            reader.skipToEnd();
            okv::NotificationLogWriter writer(folder.path(), {});
            failing.arm();
            writer.post({"a", {}, std::string(1000, 'x')});
            writer.post({"b", {}, {}});
            failing.disarm();
            EXPECT_EQ(namesIn(reader), (std::vector<std::string>{"a", "b"}));
        });
    EXPECT_EQ(count, 3U) << "a header and two records";
}

namespace {

/// Logs with each allocation failing in turn: errno is kept, and nothing is thrown.
template <class Log>
std::uint32_t allocationsSurvivedBy(Log log) {
    const std::string text(3000, 'x');  // no text that needs no memory
    return forEachFailingCall(Function::allocate, Kind::any, ENOMEM, [&](FailingCall& failing) {
        CapturedStderr standardError;
        failing.arm();
        errno = ENOENT;
        log(text.c_str());
        const int error = errno;
        failing.disarm();
        EXPECT_EQ(error, ENOENT);
    });
}

}  // namespace

TEST(ALogWithoutMemory, DropsTheTextAndKeepsErrno) {
    EXPECT_GT(allocationsSurvivedBy([](const char* text) { okv::NSLog("%s", text); }), 1U);
    int heard = 0;
    okv::setLogSink([&](int, std::string_view) { ++heard; });
    const auto count = allocationsSurvivedBy([](const char* text) {
        OKVSystemLog(okv::kDefaultLogLevel + 1, "%s", text);  // for the sink alone
    });
    okv::setLogSink(nullptr);
    EXPECT_GT(count, 0U);
    EXPECT_EQ(heard, 1) << "the one that had memory";
}
