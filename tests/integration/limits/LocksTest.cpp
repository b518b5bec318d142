#include "../faults/Support.h"
#include "../okvctl/ToolRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

// What the administrator lays down for everybody, and what the tool tells about a value.

using namespace faults;
using okv::Array;
using okv::Dictionary;
using okv::Null;
using okv::Value;
using okvctl_test::run;
using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using Words = std::vector<std::string>;
using Kind = okv::Refusal::Kind;

namespace {

constexpr std::int32_t kAccount = 23456;
constexpr std::int32_t kUser = 2;
constexpr char kLocked[] = "dc-gui-laid_down";
constexpr char kFree[] = "dc-gui-free";

std::string done(const Words& words) {
    const auto ran = run(words);
    EXPECT_EQ(ran.code, 0) << testing::PrintToString(words) << ran.error;
    return ran.out;
}

/// Everybody has a value, and the users 1 and 2 have others; then the key is locked.
class LockedKey : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server_.start({"--self-service"}));
        root_ = connect();
        okv::send<&Data::setUseridPT_applyUid>(*root_, kAccount, kUser);
        okv::send<&Admin::setOKVCommonDataAllPT>(*root_, Dictionary{{kLocked, "everybody's"}});
        for (const std::int32_t user : {1, kUser})
            okv::send<&Data::setOKVDataPT_value_appUid>(*root_, kLocked, user, user);
        EXPECT_TRUE(okv::send<&Admin::lockOKVDataPT>(*root_, Array{kLocked}));
    }

    // What every read that names the key answers, for user 1 and for user 2.
    std::vector<Value> readsFor(std::int32_t user) const {
        const auto ofAll = [](const Value& all) { return all.as<Dictionary>()[kLocked]; };
        const auto account = user == kUser ? kAccount : 99;  // without a user: the default one
        const Array keys{kLocked};
        return {okv::send<&Data::okvDataPT_appUid>(*root_, kLocked, user),
                okv::send<&Data::okvDataPT_osUid>(*root_, kLocked, account),
                ofAll(okv::send<&Data::okvDataAllPT_appUid>(*root_, keys, user)),
                ofAll(okv::send<&Data::okvDataAllPT_osUid>(*root_, keys, account))};
    }
    void expectReads(std::int32_t user, const Value& value) const {
        EXPECT_EQ(readsFor(user), std::vector<Value>(4, value)) << "user " << user;
    }
    std::int64_t revision() const { return status(*root_)["revision"].as<std::int64_t>(); }

    ServerProcess server_;
    okv::Ref<okv::RemoteObject> root_;
};

template <class A>
void expectLocked(const A& answer, const char* what) {
    EXPECT_FALSE(answer.value) << what;
    ASSERT_TRUE(answer.refusal) << what;
    EXPECT_EQ(answer.refusal->kind, Kind::locked) << what;
    EXPECT_EQ(answer.refusal->reason, "the key dc-gui-laid_down is locked") << what;
}

}  // namespace

TEST_F(LockedKey, AnswersEverybodysValueToEveryUserUntilItIsUnlocked) {
    for (const std::int32_t user : {1, kUser}) expectReads(user, "everybody's");
    okv::send<&Admin::setOKVCommonDataAllPT>(*root_, Dictionary{{kLocked, "another"}});
    for (const std::int32_t user : {1, kUser}) expectReads(user, "another");
    okv::send<&Admin::setOKVCommonDataAllPT>(*root_, Dictionary{{kLocked, Null{}}});
    for (const std::int32_t user : {1, kUser}) expectReads(user, Null{});
    EXPECT_TRUE(okv::send<&Admin::unlockOKVDataPT>(*root_, Array{kLocked}));
    for (const std::int32_t user : {1, kUser}) expectReads(user, user);
}

TEST_F(LockedKey, StaysLockedOverARestartAndTheUsersValuesStayStored) {
    server_.signal(SIGTERM);
    EXPECT_EQ(server_.wait(), 0);
    ASSERT_TRUE(server_.start());
    root_ = connect();
    for (const std::int32_t user : {1, kUser}) expectReads(user, "everybody's");
    EXPECT_TRUE(okv::send<&Admin::unlockOKVDataPT>(*root_, Array{kLocked}));
    for (const std::int32_t user : {1, kUser}) expectReads(user, user);
}

TEST_F(LockedKey, TakesNoUsersValueInAnyWayAndFromNobody) {
    const auto before = revision();
    for (const Value& value : {Value("new"), Value(Null{})}) {
        expectLocked(
            okv::sendForAnswer<&Data::setOKVDataPT_value_appUid>(*root_, kLocked, value, 1),
            "by user");
        expectLocked(
            okv::sendForAnswer<&Data::setOKVDataPT_value_osUid>(*root_, kLocked, value, kAccount),
            "by account");
        const Dictionary several{{kFree, 1}, {kLocked, value}, {"dc-gui-more", 2}};
        expectLocked(okv::sendForAnswer<&Data::setOKVDataAllPT_appUid>(*root_, several, 1),
                     "several by user");
        expectLocked(okv::sendForAnswer<&Data::setOKVDataAllPT_osUid>(*root_, several, kAccount),
                     "several by account");
    }
    EXPECT_EQ(revision(), before);
    for (const std::int32_t user : {1, kUser})
        EXPECT_TRUE(okv::send<&Data::okvDataPT_appUid>(*root_, kFree, user).isNull())
            << "nothing of the transaction was stored";
}

TEST_F(LockedKey, TakesNoValueOfTheAccountConcernedUnderSelfService) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can be another account";
    EXPECT_EQ(
        asAccount(
            kAccount,
            [] {
                const auto root = connect();
                const auto free =
                    okv::sendForAnswer<&Data::setOKVDataPT_value_appUid>(*root, kFree, 1, kUser);
                const auto locked =
                    okv::sendForAnswer<&Data::setOKVDataPT_value_appUid>(*root, kLocked, 1, kUser);
                return free.value && !locked.value && locked.refusal->kind == Kind::locked ? 0 : 1;
            }),
        0);
}

TEST_F(LockedKey, IsRefusedByTheToolWithItsNameAndTheCode4) {
    const auto alone = run({"set", "--user=1", "dc-gui-laid_down=x"});
    EXPECT_EQ(alone.code, 4);
    EXPECT_THAT(alone.error, HasSubstr("the key dc-gui-laid_down is locked"));
    const auto before = revision();
    const auto among =
        run({"set", "--user=1", "dc-gui-free=1", "dc-gui-laid_down=2", "dc-gui-more=3"});
    EXPECT_EQ(among.code, 4);
    EXPECT_THAT(among.error, HasSubstr("the key dc-gui-laid_down is locked"));
    const auto taken = run({"unset", "--user=1", "dc-gui-free", "dc-gui-laid_down"});
    EXPECT_EQ(taken.code, 4);
    EXPECT_EQ(revision(), before);
    EXPECT_EQ(done({"--no-legend", "list", "--user=1"}), "dc-gui-laid_down  int  1\n");
    done({"set", "dc-gui-laid_down=new for all"});
    EXPECT_EQ(done({"get", "--user=2", "dc-gui-laid_down"}), "new for all\n");
    done({"unlock", "dc-gui-laid_down"});
    EXPECT_EQ(done({"get", "--user=2", "dc-gui-laid_down"}), "2\n");
    done({"set", "--user=1", "dc-gui-laid_down=mine"});
}

TEST_F(LockedKey, IsDescribedWithItsValueItsOriginItsWriterAndItsLock) {
    const auto withDate = ContainsRegex("time +[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:.]+Z\n");
    const auto locked = done({"describe", "--user=1", kLocked});
    EXPECT_THAT(locked, AllOf(HasSubstr("value        everybody's\n"),
                              HasSubstr("origin       everybody\n"),
                              HasSubstr("locked       true\n"), HasSubstr("writer       0\n"),
                              HasSubstr("lock_writer  0\n"), HasSubstr("lock_time    20")));
    EXPECT_THAT(locked, withDate);
    done({"unlock", kLocked});
    const auto own = done({"describe", "--user=1", kLocked});
    EXPECT_THAT(own, AllOf(HasSubstr("value   1\n"), HasSubstr("origin  user\n"),
                           HasSubstr("locked  false\n"), Not(HasSubstr("lock_writer"))));
    EXPECT_THAT(own, withDate);
    EXPECT_THAT(
        done({"describe", kFree}),
        AllOf(HasSubstr("origin  none\n"), HasSubstr("locked  false\n"), Not(HasSubstr("writer"))));
}

TEST_F(LockedKey, AndAnyOtherAreDescribedWithTheAccountThatWroteAndTheTimeOfThat) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can be another account";
    const auto before = okv::Date::now().secondsSince1970;
    EXPECT_EQ(run({"set", "--user=2", "dc-gui-free=mine"}, {}, kAccount).code, 0);
    const auto told =
        okv::send<&Admin::okvDataInfoPT_appUid>(*root_, kFree, kUser).as<Dictionary>();
    EXPECT_EQ(told["writer"], Value(kAccount));
    EXPECT_EQ(told["value"], Value("mine"));
    const auto time = told["time"].as<okv::Date>().secondsSince1970;
    EXPECT_GE(time, before);
    EXPECT_LE(time, okv::Date::now().secondsSince1970);
    EXPECT_THAT(done({"describe", "--user=2", kFree}), HasSubstr("writer  23456\n"));
}
