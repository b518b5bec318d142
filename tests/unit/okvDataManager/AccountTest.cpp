#include "Support.h"

#include <unistd.h>

// Which of a process's two user ids counts where: in a child whose real and effective ones differ.

namespace dmtest {
namespace {

using okv::Dictionary;

constexpr uid_t kReal = 23401;
constexpr uid_t kEffective = 23402;

class AccountTest : public ServerTest {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "only root can take two different user ids";
        server().answer("uidListPT", Dictionary{{kEffective, 2}, {kReal, 1}});
        server().answer("useridAppListPT", okv::Array{1, 2, 7});
        server().answer("currentUserIdPT", 7);
        server().answerBy("userAppuidPT:", [](const ReceivedMessage& message) -> Value {
            return message.arguments[0] == Value(kEffective) ? 2 : 1;
        });
        for (const auto* selector : {"okvHammerListPT:", "okvUserSettingPT:", "okvContentsWordsPT:",
                                     "okvBlackExtensionListPT:"})
            server().answerBy(selector, [](const ReceivedMessage& message) {
                return message.arguments[0];  // whose list it is
            });
    }

    /// Runs the task in a child of real uid kReal and effective uid kEffective.
    static bool succeedsAsTwoAccounts(const std::function<void(okvDataManager&)>& task) {
        return succeedsInAChild([&] {
            ASSERT_EQ(setresuid(kReal, kEffective, kEffective), 0);
            const auto manager = okv::Ref<okvDataManager>::adopting((new okvDataManager)->init());
            ASSERT_TRUE(manager) << "root's server is accepted";
            task(*manager);
        });
    }
};

Value switchOf(uid_t account) {
    return Dictionary{{"osuserid", account}, {"session_userid", 99}};
}

}  // namespace

TEST_F(AccountTest, TheAccountTableIsSearchedByTheRealUserId) {
    EXPECT_TRUE(succeedsAsTwoAccounts(
        [](okvDataManager& manager) { EXPECT_EQ(manager.isAppUserIdWithOSId(), 1); }));
}

TEST_F(AccountTest, TheListsByAccountGoByTheEffectiveUserId) {
    EXPECT_TRUE(succeedsAsTwoAccounts([](okvDataManager& manager) {
        EXPECT_EQ(manager.okvCurrentHammerList2OSUid(), Value(2));
        EXPECT_EQ(manager.okvCurrentUserSetting2OSUid(), Value(2));
        EXPECT_EQ(manager.okvCurrentContentsWords2OSUid(), Value(2));
        EXPECT_EQ(manager.okvCurrentBlackExtensionList2OSUid(), Value(2));
    }));
    EXPECT_EQ(server().count("userAppuidPT:"), 4U);
}

TEST_F(AccountTest, ASwitchOfTheRealUserIdIsApplied) {
    EXPECT_TRUE(succeedsAsTwoAccounts([](okvDataManager& manager) {
        manager.updateSessionUserId(switchOf(kReal));
        EXPECT_EQ(manager.nowSessionUserId(), 99);
    }));
}

TEST_F(AccountTest, ASwitchOfTheEffectiveUserIdIsNot) {
    EXPECT_TRUE(succeedsAsTwoAccounts([](okvDataManager& manager) {
        manager.updateSessionUserId(switchOf(kEffective));
        EXPECT_EQ(manager.nowSessionUserId(), 7);
    }));
}

TEST_F(AccountTest, RealUserIdZeroMatchesTheKeyZero) {
    server().answer("uidListPT", Dictionary{{kEffective, 2}, {0, 55}});
    EXPECT_TRUE(succeedsInAChild([&] {
        ASSERT_EQ(setresuid(0, kEffective, 0), 0);
        const auto manager = okv::Ref<okvDataManager>::adopting((new okvDataManager)->init());
        ASSERT_TRUE(manager);
        EXPECT_EQ(manager->isAppUserIdWithOSId(), 55);
        manager->updateSessionUserId(Dictionary{{"session_userid", 4}});
        EXPECT_EQ(manager->nowSessionUserId(), 4) << "a missing account reads as 0";
    }));
}

TEST_F(AccountTest, AnAccountBeyond31BitsIsFoundAndAsked) {
    constexpr uid_t large = 4000000000U;
    server().answer("uidListPT", Dictionary{{std::int64_t{large}, 8}});
    EXPECT_TRUE(succeedsInAChild([&] {
        ASSERT_EQ(setresuid(large, large, large), 0);
        const auto manager = okv::Ref<okvDataManager>::adopting((new okvDataManager)->init());
        ASSERT_TRUE(manager);
        EXPECT_EQ(manager->isAppUserIdWithOSId(), 8);
        manager->updateSessionUserId(
            Dictionary{{"osuserid", std::int64_t{large}}, {"session_userid", 9}});
        EXPECT_EQ(manager->nowSessionUserId(), 9) << "switched by the low 32 bits";
        manager->okvCurrentHammerList2OSUid();
    }));
    for (const auto& message : server().messages()) {
        if (message.selector == "userAppuidPT:") {
            EXPECT_EQ(message.arguments, std::vector<Value>{static_cast<std::int32_t>(large)});
        }
    }
    EXPECT_EQ(server().count("userAppuidPT:"), 1U);
}

}  // namespace dmtest
