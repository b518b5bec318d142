#include "OperationTable.h"

#include <algorithm>
#include <set>

// Every operation that asks the server, row by row: what it sends, in which order and with which
// types, and what it makes of the answers; and the same rows without a proxy.

namespace dmtest {
namespace {

using testing::ContainerEq;
using testing::IsEmpty;
using testing::SizeIs;

class FakeOperationServer final : public OperationServer {
public:
    explicit FakeOperationServer(FakeDataServer& server) : server_(server) {}

    bool prepare(const Operation& operation) override {
        server_.answer("defaultUserIdPT", 3);
        server_.answer("useridAppListPT", okv::Array{3, 7});
        for (const auto& [selector, value] : operation.answers) server_.answer(selector, value);
        return true;
    }
    void beginRecord() override { server_.takeMessages(); }
    void checkRecord(const Operation& operation) override {
        EXPECT_THAT(server_.takeMessages(), ContainerEq(operation.messages));
    }

private:
    FakeDataServer& server_;
};

std::string nameOf(const testing::TestParamInfo<Operation>& info) {
    return info.param.name;
}

// In the suite's log only a switch of the session user is told of, connected or not.
std::size_t entriesOf(const Operation& operation) {
    return operation.name == "updateSessionUserId" ? 1 : 0;
}

class OperationOfAConnectedOne : public ConnectedTest,
                                 public testing::WithParamInterface<Operation> {};

class OperationWithoutAProxy : public ServerTest, public testing::WithParamInterface<Operation> {
protected:
    void expectZeroOf(okvDataManager& manager) {
        manager.setNowSessionUserId(kSessionUser);
        const auto result = GetParam().call(manager);
        if (GetParam().zero) {
            EXPECT_EQ(result, *GetParam().zero);
        }
        EXPECT_FALSE(manager.isConnect());
        if (GetParam().readsForSessionUser) {
            EXPECT_EQ(manager.nowSessionUserId(), 0);
        }
    }
};

using AllOperations = ConnectedTest;

}  // namespace

TEST_P(OperationOfAConnectedOne, SendsItsMessagesAndAnswersItsResult) {
    FakeOperationServer fake(server());
    LoggedEntries entries;
    runOperation(manager(), fake, GetParam());
    EXPECT_THAT(lines_.take(), IsEmpty()) << "no operation writes a line";
    EXPECT_THAT(entries.take(), SizeIs(entriesOf(GetParam())));
}

TEST_P(OperationWithoutAProxy, AnswersItsZeroValueAndNeitherSendsNorConnects) {
    const auto manager = okv::make<okvDataManager>();
    LoggedEntries entries;
    expectZeroOf(*manager);
    EXPECT_EQ(server().acceptedConnections(), 0U);
    EXPECT_THAT(lines_.take(), IsEmpty());
    EXPECT_THAT(entries.take(), SizeIs(entriesOf(GetParam())));
}

INSTANTIATE_TEST_SUITE_P(All, OperationOfAConnectedOne, testing::ValuesIn(allOperations()), nameOf);
INSTANTIATE_TEST_SUITE_P(All, OperationWithoutAProxy, testing::ValuesIn(allOperations()), nameOf);

TEST_F(AllOperations, TogetherSendEveryMethodButTheTenThatAreOnlyServed) {
    using Rows = okv::Dispatcher<OKVDataMng_protocol>;
    FakeOperationServer fake(server());
    std::set<std::string> expected;
    for (std::size_t row = 0; row < Rows::rowCount; ++row) expected.emplace(Rows::selector(row));
    for (const auto& never : selectorsNeverSent()) EXPECT_EQ(expected.erase(never), 1U) << never;
    for (const auto& operation : allOperations()) {
        SCOPED_TRACE(operation.name);
        runOperation(manager(), fake, operation);
    }
    std::set<std::string> received;
    for (std::size_t row = 0; row < Rows::rowCount; ++row) {
        if (server().everReceived(std::string(Rows::selector(row))))
            received.emplace(Rows::selector(row));
    }
    EXPECT_EQ(received, expected);
    EXPECT_EQ(received.size(), Rows::rowCount - selectorsNeverSent().size());
}

TEST_F(AllOperations, ThatHandOnTheServersYesHandOnItsNoToo) {
    int handed = 0;
    for (const auto& operation : allOperations()) {
        if (operation.answers.size() != 1 || operation.answers[0].value != Value(true)) continue;
        SCOPED_TRACE(operation.name);
        server().answer(operation.answers[0].selector, false);
        EXPECT_EQ(operation.call(manager()), Value(false));
        ++handed;
    }
    EXPECT_GT(handed, 20);
}

TEST_F(AllOperations, OfAManagerThatWasDisconnectedSendNothing) {
    manager().disConnectSrv();
    for (const auto& operation : allOperations()) {
        SCOPED_TRACE(operation.name);
        manager().setNowSessionUserId(kSessionUser);
        const auto result = operation.call(manager());
        if (operation.zero) {
            EXPECT_EQ(result, *operation.zero);
        }
        const auto kept = operation.readsForSessionUser ? 0 : kSessionUser;
        if (operation.name.find("SessionUserId") == std::string::npos ||
            operation.readsForSessionUser) {
            EXPECT_EQ(manager().nowSessionUserId(), kept);
        }
    }
    EXPECT_THAT(sent(), IsEmpty());
    EXPECT_EQ(server().acceptedConnections(), 1U);
}

}  // namespace dmtest
