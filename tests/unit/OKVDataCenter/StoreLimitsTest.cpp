// What the store takes, at each limit and one beyond it; and what is still taken where a server
// with larger limits has left more than this one takes.
#include "Harness.h"

using datacenter::Limits;
using okv::Array;
using okv::Dictionary;
using okv::Null;
using okv::Value;
using Kind = okv::Refusal::Kind;

namespace {

template <class A>
bool isTooLarge(const A& answer) {
    return answer.refusal && answer.refusal->kind == Kind::tooLarge;
}

/// Sends as root, and tells whether it was refused as too large.
class StoreLimits : public testing::Test {
protected:
    void restartWith(const Limits& limits) { harness.restart(limits); }

    bool refusesUser(std::int32_t osUid, std::int32_t user) {
        return isTooLarge(harness.askAs<&Data::setUseridPT_applyUid>(root, osUid, user));
    }
    bool refusesSwitch(std::int32_t osUid) {
        return isTooLarge(harness.askAs<&Admin::setCurrentUserIdPT_osUid>(root, 1, osUid));
    }
    bool refusesSwitchOfItself(uid_t uid) {
        return isTooLarge(harness.askAs<&Data::setCurrentUserIdForOSPT>(account(uid, {4001}), 1));
    }
    bool refusesProcesses(const Dictionary& processes) {
        return isTooLarge(harness.askAs<&Admin::setOkvFltProcWhiteListPT>(root, processes));
    }
    bool refusesLocks(const Array& keys) {
        return isTooLarge(harness.askAs<&Admin::lockOKVDataPT>(root, keys));
    }
    bool refusesImport(const char* part, const Value& content) {
        return isTooLarge(
            harness.askAs<&Admin::importDataPT>(root, Dictionary{{"format", 1}, {part, content}}));
    }
    Value processes() { return harness.ask<&Data::okvFltProcWhiteListPT>(); }

    const okv::PeerIdentity root = account(0);
    Harness harness;
};

}  // namespace

TEST_F(StoreLimits, Users) {
    Limits limits;
    limits.users = 3;
    restartWith(limits);
    EXPECT_FALSE(refusesUser(1000, 2));
    EXPECT_FALSE(refusesUser(1001, 3));
    EXPECT_TRUE(refusesUser(1002, 4));
    EXPECT_FALSE(refusesUser(1002, 3)) << "one that is there";
    EXPECT_EQ(harness.ask<&Data::useridAppListPT>(), Value(Array{1, 2, 3}));
    const Dictionary three{{"1", Dictionary{}}, {"2", Dictionary{}}, {"3", Dictionary{}}};
    auto four = three;
    four.set("4", Dictionary{});
    EXPECT_FALSE(refusesImport("users", three));
    EXPECT_TRUE(refusesImport("users", four));
}

TEST_F(StoreLimits, Accounts) {
    Limits limits;
    limits.accounts = 2;
    restartWith(limits);
    EXPECT_FALSE(refusesUser(1000, 1));
    EXPECT_FALSE(refusesSwitch(1001));
    EXPECT_TRUE(refusesUser(1002, 1));
    EXPECT_TRUE(refusesSwitch(1002));
    EXPECT_TRUE(refusesSwitchOfItself(1002));
    EXPECT_FALSE(refusesSwitchOfItself(1001)) << "one that is there";
    const Dictionary one{{"appuid", 1}};
    EXPECT_FALSE(refusesImport("accounts", Dictionary{{"1", one}, {"2", one}}));
    EXPECT_TRUE(refusesImport("accounts", Dictionary{{"1", one}, {"2", one}, {"3", one}}));
}

TEST_F(StoreLimits, AccountsThatAreTooManyAreStillGivenUsers) {
    for (const int osUid : {1000, 1001, 1002}) ASSERT_FALSE(refusesUser(osUid, 1));
    Limits limits;
    limits.accounts = 2;
    restartWith(limits);
    EXPECT_FALSE(refusesUser(1001, 1));
    EXPECT_FALSE(refusesSwitch(1002));
    EXPECT_FALSE(refusesSwitchOfItself(1000));
    EXPECT_TRUE(refusesUser(1003, 1));
}

TEST_F(StoreLimits, Locks) {
    Limits limits;
    limits.locks = 2;
    restartWith(limits);
    EXPECT_FALSE(refusesLocks({"a", "b"}));
    EXPECT_TRUE(refusesLocks({"c"}));
    EXPECT_FALSE(harness.ask<&Admin::lockListPT>().as<Dictionary>().contains("c"));
    EXPECT_FALSE(refusesImport("locks", Array{"x", "y"}));
    EXPECT_TRUE(refusesImport("locks", Array{"x", "y", "z"}));
}

TEST_F(StoreLimits, NamesOfAProcessList) {
    Limits limits;
    limits.processes = 2;
    restartWith(limits);
    const Dictionary two{{"a", "1"}, {"b", "2"}}, three{{"a", "1"}, {"b", "2"}, {"c", "3"}};
    EXPECT_FALSE(refusesProcesses(two));
    EXPECT_TRUE(refusesProcesses(Dictionary{{"c", "3"}}));
    EXPECT_EQ(processes(), Value(two));
    EXPECT_FALSE(refusesProcesses(Dictionary{{"a", Null{}}, {"c", "3"}})) << "one for another";
    EXPECT_FALSE(refusesImport("flt_proc_white", two));
    EXPECT_TRUE(refusesImport("flt_proc_white", three));
}

TEST_F(StoreLimits, BytesOfAProcessList) {
    Limits limits;
    limits.processBytes = 1 + 3;  // a name, and a text of two letters as it is stored
    restartWith(limits);
    EXPECT_FALSE(refusesProcesses(Dictionary{{"a", "12"}}));
    EXPECT_TRUE(refusesProcesses(Dictionary{{"a", "123"}}));
    EXPECT_EQ(processes(), Value(Dictionary{{"a", "12"}}));
}

TEST_F(StoreLimits, AProcessListThatIsTooLargeCanBeMadeSmallerStepByStep) {
    ASSERT_FALSE(
        refusesProcesses(Dictionary{{"a", "12345678"}, {"b", "2"}, {"c", "3"}, {"d", "4"}}));
    Limits limits;
    limits.processes = 2;
    limits.processBytes = 8;
    restartWith(limits);
    EXPECT_TRUE(refusesProcesses(Dictionary{{"e", "5"}})) << "more than it was";
    EXPECT_TRUE(refusesProcesses(Dictionary{{"b", "22"}})) << "larger than it was";
    EXPECT_TRUE(refusesProcesses(Dictionary{{"d", Null{}}, {"b", "2222222"}}))
        << "fewer, but larger";
    EXPECT_FALSE(refusesProcesses(Dictionary{{"d", Null{}}}));
    EXPECT_FALSE(refusesProcesses(Dictionary{{"a", "1"}}));
    EXPECT_EQ(processes(), Value(Dictionary{{"a", "1"}, {"b", "2"}, {"c", "3"}}));
}

TEST_F(StoreLimits, ItemsOfAProcessList) {
    ASSERT_FALSE(refusesProcesses(Dictionary{{"a", Array(30, Value(1))}, {"b", "text"}}));
    Limits limits;
    limits.replyItems = 20;
    restartWith(limits);
    const auto withItems = [](std::size_t count) {
        return Dictionary{{"a", Array(count, Value(1))}};
    };
    EXPECT_TRUE(refusesProcesses(Dictionary{{"b", Array{1}}})) << "more than there were";
    EXPECT_FALSE(refusesProcesses(withItems(25))) << "fewer";
    EXPECT_FALSE(refusesProcesses(withItems(15))) << "as many as a reply carries";
    EXPECT_TRUE(refusesProcesses(withItems(16)));
    EXPECT_TRUE(refusesProcesses(Dictionary{{"c", 1}}));
    EXPECT_EQ(processes(), Value(Dictionary{{"a", Array(15, Value(1))}, {"b", "text"}}));
    EXPECT_FALSE(refusesImport("flt_proc_white", withItems(17)));
    EXPECT_TRUE(refusesImport("flt_proc_white", withItems(18)));
}

TEST_F(StoreLimits, KeysThatOneChangeNames) {
    Limits limits;
    limits.writeKeys = 2;
    restartWith(limits);
    const auto expectTwo = [](const auto& send) {
        EXPECT_FALSE(send(2).refusal);
        const auto answer = send(3);
        ASSERT_TRUE(answer.refusal);
        EXPECT_EQ(answer.refusal->kind, Kind::tooLarge);
        EXPECT_EQ(answer.refusal->reason, "one change names at most 2 keys");
    };
    const auto settings = [](int count, const Value& value) {
        Dictionary all;
        for (int i = 0; i < count; ++i) all.set("k" + std::to_string(i), value);
        return all;
    };
    const auto keys = [](int count) { return Array(static_cast<std::size_t>(count), "k"); };
    harness.ask<&Data::setUseridPT_applyUid>(1000, 2);
    for (const Value& value : {Value(1), Value(Null{})}) {
        expectTwo([&](int count) {
            return harness.askAs<&Data::setOKVDataAllPT_appUid>(root, settings(count, value), 1);
        });
        expectTwo([&](int count) {
            return harness.askAs<&Data::setOKVDataAllPT_osUid>(root, settings(count, value), 1000);
        });
        expectTwo([&](int count) {
            return harness.askAs<&Admin::setOKVCommonDataAllPT>(root, settings(count, value));
        });
        expectTwo([&](int count) {
            return harness.askAs<&Admin::setOkvFltProcBlackListPT>(root, settings(count, value));
        });
    }
    expectTwo([&](int count) { return harness.askAs<&Admin::lockOKVDataPT>(root, keys(count)); });
    expectTwo([&](int count) { return harness.askAs<&Admin::unlockOKVDataPT>(root, keys(count)); });
    EXPECT_FALSE(refusesImport("everybody", settings(3, 1))) << "an import has no such bound";
}

TEST_F(StoreLimits, BytesOfAUsersList) {
    Limits limits;
    limits.listBytes = 4;
    restartWith(limits);
    const auto refuses = [&](const Value& list) {
        return isTooLarge(harness.askAs<&Data::setOkvHammerListPT_value>(root, 1, list));
    };
    EXPECT_FALSE(refuses("123"));
    EXPECT_TRUE(refuses("1234"));
    EXPECT_EQ(harness.ask<&Data::okvHammerListPT>(1), Value("123"));
}
