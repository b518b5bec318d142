#include "Support.h"

#include <OKVPlatform/ipc/Connection.h>

// What the fake data server keeps of the contract on clients: those who write clients rely on it.

namespace dmtest {
namespace {

using Data = OKVDataMng_protocol;

class ToldClient final : public okv::Object, public OKVClientMng_protocol {
public:
    void disConnectSrv() override { ++told; }
    int told = 0;

protected:
    void dealloc() override { okv::ExportedObjects::withdraw(*this); }
};

class FakeDataServerTest : public ServerTest {
protected:
    FakeDataServerTest() {
        service_ = okv::Connection::connectionWithRegisteredName(kOKVDataServerName);
    }
    // These tests send what no data manager does.
    void TearDown() override {}

    bool registerClient() {
        return okv::send<&Data::registerAsClient>(*service_->rootProxy(), lent());
    }
    void removeClient() { okv::send<&Data::removeAsClient>(*service_->rootProxy(), lent()); }
    /// How often the client is told when all are. An answer that comes after that has been sent
    /// shows that it was read.
    int timesTold() {
        client_->told = 0;
        server().disconnectClients();
        okv::send<&Data::connectCount>(*service_->rootProxy());
        okv::RunLoop::current()->dispatch();
        return client_->told;
    }

    okv::detail::LentObject lent() { return okv::lend<OKVClientMng_protocol>(*client_); }

    okv::Ref<okv::Connection> service_;
    okv::Ref<ToldClient> client_ = okv::make<ToldClient>();
};

}  // namespace

TEST_F(FakeDataServerTest, TellsAClientOnceHoweverOftenItRegistered) {
    EXPECT_TRUE(registerClient());
    EXPECT_TRUE(registerClient());
    EXPECT_EQ(timesTold(), 1);
}

TEST_F(FakeDataServerTest, ForgetsAClientThatIsRemoved) {
    EXPECT_TRUE(registerClient());
    removeClient();
    EXPECT_EQ(timesTold(), 0);
    removeClient();
    EXPECT_TRUE(registerClient());
    EXPECT_EQ(timesTold(), 1);
}

TEST_F(FakeDataServerTest, DoesNotKeepAClientThatItAnsweredNo) {
    server().refuseRegistration();
    EXPECT_FALSE(registerClient());
    EXPECT_EQ(timesTold(), 0);
}

TEST_F(FakeDataServerTest, KeepsWhomABehaviourOrAnAnswerAcceptsAndNobodyElse) {
    server().answerBy("registerAsClient:", [](const ReceivedMessage&) { return Value(true); });
    EXPECT_TRUE(registerClient());
    EXPECT_EQ(timesTold(), 1);
    removeClient();
    server().answer("registerAsClient:", false);
    EXPECT_FALSE(registerClient());
    EXPECT_EQ(timesTold(), 0);
    server().answer("registerAsClient:", true);
    EXPECT_TRUE(registerClient());
    EXPECT_EQ(timesTold(), 1);
}

}  // namespace dmtest
