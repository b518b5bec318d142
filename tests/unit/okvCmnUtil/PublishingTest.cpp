#include <OKVDataManager/okvCmnUtil.h>
#include <OKVLog/OKVLog.h>
#include <OKVPlatform/ipc/Connection.h>
#include <OKVPlatform/ipc/RegisteredName.h>
#include <OKVPlatform/process/Task.h>
#include <OKVPlatform/system/NSLog.h>
#include <OKVTesting/RuntimeFolder.h>
#include <OKVTesting/ServiceThread.h>

#include "support/ForkedChild.h"
#include "support/Sanitizers.h"
#include "support/Serving.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <limits>

#include "unit/process/Support.h"

namespace {

constexpr char kName[] = "jp.nrm.test.published";

class Counted final : public okv::Object {
public:
    explicit Counted(int& deallocs) : deallocs_(deallocs) {}
    okv::ObjectArray* grownWhenGone = nullptr;

protected:
    void dealloc() override {
        ++deallocs_;
        if (grownWhenGone != nullptr) grownWhenGone->elements.push_back(nullptr);
    }

private:
    int& deallocs_;
};

struct RefuseAll final : okv::PublicationDelegate {
    bool shouldMakeNewConnection(const okv::PeerIdentity&) override { return false; }
};

okv::RootObject someRoot() {
    okv::RootObject root;
    root.handler = [](void*, okv::IncomingRequest& request) {
        request.fail("nothing is served here");
    };
    return root;
}

okv::Ref<okv::Publication> published(double timeout = 5,
                                     okv::PublicationDelegate* delegate = nullptr) {
    return okvCmnUtil::rootObject_registerName_timeout_delegate(someRoot(), kName, timeout,
                                                                delegate);
}

class Publishing : public testing::Test {
protected:
    okv::testing::RuntimeFolder folder_;
};

}  // namespace

TEST_F(Publishing, AnObjectIsFoundUnderItsNameUntilItIsWithdrawn) {
    EXPECT_FALSE(okvCmnUtil::existRegisteredName(kName));
    auto connection = published();
    ASSERT_TRUE(connection);
    EXPECT_EQ(connection->retainCount(), 1U) << "the caller owns it";
    EXPECT_TRUE(okvCmnUtil::existRegisteredName(kName));
    okvCmnUtil::unregisterName(std::move(connection));
    EXPECT_FALSE(okvCmnUtil::existRegisteredName(kName));
    okvCmnUtil::unregisterName(nullptr);
}

TEST_F(Publishing, WithoutARootObjectOrANameThereIsNothing) {
    EXPECT_FALSE(okvCmnUtil::rootObject_registerName_timeout_delegate({}, kName, 5, nullptr));
    EXPECT_FALSE(okvCmnUtil::rootObject_registerName_timeout_delegate(someRoot(), "", 5, nullptr));
    EXPECT_FALSE(okvCmnUtil::existRegisteredName(kName));
}

TEST_F(Publishing, ATimeoutOfZeroOrLessRegistersNothing) {
    for (const double timeout : {0.0, -0.0, -1.0, -HUGE_VAL}) EXPECT_FALSE(published(timeout));
    EXPECT_TRUE(std::filesystem::is_empty(folder_.path())) << "not even for a moment";
}

TEST_F(Publishing, TheLeastTimeoutAboveZeroIsEnough) {
    EXPECT_TRUE(published(std::numeric_limits<double>::denorm_min()));
}

TEST_F(Publishing, ATimeoutThatIsNoNumberIsNotRefused) {
    EXPECT_TRUE(published(std::nan("")));
}

TEST_F(Publishing, BothTimeoutsAreSetAfterTheRegistration) {
    const auto connection = published(2.5);
    EXPECT_EQ(connection->requestTimeout(), 2.5);
    EXPECT_EQ(connection->replyTimeout(), 2.5);
}

TEST_F(Publishing, ANameThatIsTakenIsRefusedAndStaysWithItsHolder) {
    const auto first = published();
    EXPECT_FALSE(published());
    EXPECT_TRUE(okvCmnUtil::existRegisteredName(kName));
}

TEST_F(Publishing, ANameIsSeenAndRefusedAcrossProcesses) {
    const auto held = published();
    EXPECT_TRUE(support::succeedsInAChild([&] {
        EXPECT_TRUE(okvCmnUtil::existRegisteredName(kName));
        EXPECT_FALSE(published());
    }));
    EXPECT_TRUE(held->isValid());
}

TEST_F(Publishing, TheDelegateThatIsGivenIsAsked) {
    RefuseAll delegate;
    const auto held = published(5, &delegate);
    const auto loop = okv::RunLoop::current();
    const pid_t child = fork();
    if (child == 0) {
        try {
            okv::Connection::connectionWithRegisteredName(kName)->rootProxy();
            _exit(1);
        } catch (const okv::ConnectionError&) {
            _exit(0);
        }
    }
    int status = 0;
    while (waitpid(child, &status, WNOHANG) == 0)
        loop->runUntil(okv::RunLoop::Clock::now() + std::chrono::milliseconds(5));
    EXPECT_EQ(status, 0);
}

TEST_F(Publishing, ADelegateMayTurnConnectionsAway) {
    RefuseAll delegate;
    okv::testing::ServiceThread service(kName, someRoot());
    service.on([&](okv::Publication& publication) { publication.setDelegate(&delegate); });
    const auto connection = okv::Connection::connectionWithRegisteredName(kName);
    EXPECT_THROW(connection->rootProxy(), okv::ConnectionError);
    service.on([&](okv::Publication& publication) { publication.setDelegate(nullptr); });
    EXPECT_TRUE(okv::Connection::connectionWithRegisteredName(kName)->rootProxy());
}

TEST_F(Publishing, WithoutDescriptorsThereIsNoConnectionAndNoNameIsLeft) {
    if (support::kIsAddressSanitized) GTEST_SKIP() << "its checks of types take descriptors, too";
    const int refusals = support::outcomeInAChild([&] {
        for (unsigned left = 0; left < 20; ++left) {
            processtest::leaveDescriptors(left);
            const auto connection = published();
            processtest::leaveDescriptors(20);
            if (connection) return static_cast<int>(left);
            if (std::filesystem::exists(folder_.path() / kName)) return 100;
        }
        return 101;
    });
    // The three of a run loop, and the name's folder, lock and socket.
    EXPECT_GE(refusals, 4);
    EXPECT_LT(refusals, 20);
}

TEST(BulkRelease, TakesOneReferenceOfEachElementAndOneOfTheArray) {
    int deallocs = 0;
    auto kept = okv::make<Counted>(deallocs);
    auto* array = new okv::ObjectArray;
    kept->retain();
    array->elements = {kept.get(), new Counted(deallocs)};
    array->retain();
    okvCmnUtil::releaseNSMutableArray(array);
    EXPECT_EQ(deallocs, 1);
    EXPECT_EQ(kept->retainCount(), 1U);
    EXPECT_EQ(array->retainCount(), 1U);
    array->release();
}

TEST(BulkRelease, OfAnEmptyArrayReleasesOnlyTheArrayAndOfNoneNothing) {
    auto* array = new okv::ObjectArray;
    array->retain();
    okvCmnUtil::releaseNSMutableArray(array);
    EXPECT_EQ(array->retainCount(), 1U);
    array->release();
    okvCmnUtil::releaseNSMutableArray(nullptr);
}

TEST(BulkRelease, AnArrayThatChangesDuringTheWalkIsAnError) {
    int deallocs = 0;
    const auto array = okv::make<okv::ObjectArray>();
    auto* first = new Counted(deallocs);
    auto second = okv::make<Counted>(deallocs);
    first->grownWhenGone = array.get();
    array->elements = {first, second.get()};
    EXPECT_THROW(okvCmnUtil::releaseNSMutableArray(array.get()), std::logic_error);
    EXPECT_EQ(deallocs, 1);
}

TEST(ForceRelease, ReleasesAsOftenAsTheCountSays) {
    int deallocs = 0;
    auto* object = new Counted(deallocs);
    object->retain();
    object->retain();
    EXPECT_EQ(object->retainCount(), 3U);
    okvCmnUtil::forceRelease(object);
    EXPECT_EQ(deallocs, 1);
    okvCmnUtil::forceRelease(nullptr);
}

TEST_F(Publishing, WithdrawingEndsItsConnectionsThoughSomebodyElseHoldsIt) {
    auto connection = published();
    const auto held = connection;
    const auto client = okv::Connection::connectionWithRegisteredName(kName);
    ASSERT_TRUE(client);
    ASSERT_TRUE(support::serveUntil([&] { return held->connectionCount() == 1; }));
    okvCmnUtil::unregisterName(std::move(connection));
    EXPECT_FALSE(held->isValid());
    EXPECT_FALSE(client->isValid());
    EXPECT_EQ(held->retainCount(), 1U) << "the caller's reference is given up";
}

TEST_F(Publishing, AProbeSendsNothingAndHangsUp) {
    std::string why;
    const auto name = okv::PublishedName::publish(kName, {}, why);
    ASSERT_TRUE(name) << why;
    EXPECT_TRUE(okvCmnUtil::existRegisteredName(kName));
    const int probe = accept(name->listener(), nullptr, nullptr);
    ASSERT_GE(probe, 0);
    char byte = 0;
    EXPECT_EQ(recv(probe, &byte, 1, MSG_DONTWAIT), 0);
    close(probe);
}

TEST_F(Publishing, LogsNothingAndNeitherDoesWhatLaunchesQuitsAndConverts) {
    int heard = 0;
    okv::setNSLogSink([&](std::string_view) { ++heard; });
    okv::setLogSink([&](int, std::string_view) { ++heard; });
    std::int32_t pid = 0;
    const auto launch = [&](const char* path) {
        return okvCmnUtil::launchApp_argument_sync_workPath_processId(path, {}, true, "/missing",
                                                                      &pid);
    };
    EXPECT_FALSE(launch("/missing"));
    EXPECT_THROW(launch("/tmp"), okv::TaskError);
    EXPECT_TRUE(launch("/bin/true"));
    EXPECT_FALSE(okvCmnUtil::quitProcesss(pid));
    EXPECT_EQ(okvCmnUtil::sendQuitAppleEventForPid(pid), 0);
    EXPECT_EQ(okvCmnUtil::sendQuitAppleEventForPid(getpid()), okv::procNotFound);
    EXPECT_FALSE(published(0));
    auto held = published();
    EXPECT_FALSE(published());
    EXPECT_TRUE(okvCmnUtil::existRegisteredName(kName));
    okvCmnUtil::unregisterName(std::move(held));
    EXPECT_FALSE(okvCmnUtil::stringToCategoryData("1"));
    EXPECT_FALSE(okvCmnUtil::dataToCategoryString(okv::Data()));
    okv::setNSLogSink(nullptr);
    okv::setLogSink(nullptr);
    EXPECT_EQ(heard, 0);
}
