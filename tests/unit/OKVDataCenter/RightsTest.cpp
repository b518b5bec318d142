#include "Harness.h"
#include "Rights.h"

using datacenter::Grant;
using datacenter::Method;
using datacenter::Rights;
using Class = datacenter::Grant::Class;

namespace {

std::vector<Method> everyMethod() {
    std::vector<Method> all;
    for (std::size_t row = 0; row < okv::Dispatcher<Data>::rowCount; ++row)
        all.push_back({false, row});
    for (std::size_t row = 0; row < okv::Dispatcher<Admin>::rowCount; ++row)
        all.push_back({true, row});
    return all;
}

}  // namespace

TEST(Rights, EveryMethodOfBothProtocolsHasARow) {
    for (const auto method : everyMethod())
        EXPECT_NE(datacenter::grantFor(method).grantedTo, Class::none) << method.selector();
}

TEST(Rights, NoSelectorStandsInBothProtocols) {
    for (const auto method : everyMethod())
        EXPECT_EQ(datacenter::findMethod(method.selector()), method) << method.selector();
}

// Read off the selector: what changes something is never granted as a read.
TEST(Rights, NoMethodThatChangesSomethingIsARead) {
    for (const auto method : everyMethod()) {
        const auto selector = method.selector();
        bool changes = false;
        for (const char* verb : {"set", "del", "removeUser", "lockOKV", "unlock", "import",
                                 "export", "reload", "start", "stop", "end", "useridUpdate"})
            changes = changes || selector.starts_with(verb);
        EXPECT_EQ(datacenter::grantFor(method).grantedTo != Class::read, changes) << selector;
    }
}

TEST(Rights, AnAccountsOwnAreItsKeyedWritesItsListsAndItsSwitch) {
    std::vector<std::string> own;
    for (const auto method : everyMethod()) {
        if (datacenter::grantFor(method).grantedTo == Class::own)
            own.emplace_back(method.selector());
    }
    std::sort(own.begin(), own.end());
    EXPECT_EQ(own,
              (std::vector<std::string>{
                  "setCurrentUserIdForOSPT:", "setOKVDataAllPT:appUid:", "setOKVDataAllPT:osUid:",
                  "setOKVDataPT:value:appUid:", "setOKVDataPT:value:osUid:",
                  "setOkvBlackExtensionListPT:value:", "setOkvContentsWordsPT:value:",
                  "setOkvHammerListPT:value:", "setOkvUserSettingPT:value:"}));
}

TEST(Rights, AreGrantedByTheKernelsWordAboutTheCaller) {
    struct Line {
        okv::PeerIdentity who;
        bool read, own, ownWithSelfService, administer;
    };
    const Line lines[] = {
        {account(0), true, true, true, true},
        {account(4000), true, true, true, true},          // the server's own
        {account(1000, {4001}), true, true, true, true},  // in the group
        {{1, 1000, 4001, {}}, true, true, true, true},    // by its main group
        {account(1000), true, false, true, false},
        {account(1000, {0, 4000}), true, false, true, false},  // in other groups
        {account(65534), true, false, false, false},           // nobody
        {account(65534, {4001}), true, false, false, false},   // not even in the group
    };
    for (const auto& line : lines) {
        for (const bool selfService : {false, true}) {
            const Rights rights({selfService, 4000, 4001});
            const auto message = std::to_string(line.who.uid) + (selfService ? " self" : "");
            EXPECT_EQ(rights.allows(line.who, Class::read), line.read) << message;
            EXPECT_EQ(rights.allows(line.who, Class::own),
                      selfService ? line.ownWithSelfService : line.own)
                << message;
            EXPECT_EQ(rights.allows(line.who, Class::administer), line.administer) << message;
        }
    }
}

TEST(Rights, TheOverflowUidIsNoAdministratorEvenWhereTheServerRunsUnderIt) {
    const Rights rights({true, 65534, std::nullopt});
    EXPECT_FALSE(rights.isAdministrator(account(65534)));
    EXPECT_FALSE(rights.allows(account(65534), Class::own));
}

TEST(Rights, WithoutTheGroupNobodyIsInIt) {
    const Rights rights({false, 4000, std::nullopt});
    EXPECT_FALSE(rights.isAdministrator(account(1000, {0, 1, 4001})));
    EXPECT_FALSE(datacenter::administratorsGroup("a-group-that-is-not-there"));
    EXPECT_EQ(datacenter::administratorsGroup("root"), gid_t{0});
}
