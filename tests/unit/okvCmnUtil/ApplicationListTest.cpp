#include <OKVDataManager/okvCmnUtil.h>
#include <OKVDataManager/okvCmnUtilSeams.h>

#include "support/ForkedChild.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "unit/process/Support.h"

using okv::Array;
using okv::Dictionary;
using okv::Value;
using processtest::Child;
using support::TempFolder;

namespace {

std::string information(const std::string& name, const std::string& identifier) {
    return "<plist version=\"1.0\"><dict><key>CFBundleName</key><string>" + name +
           "</string><key>CFBundleIdentifier</key><string>" + identifier +
           "</string></dict></plist>";
}

// A bundle with a copy of an executable; answers the copy's path.
std::string makeBundle(const TempFolder& folder, const std::string& name,
                       const std::string& identifier, const std::string& executable) {
    const auto contents = name + ".app/Contents/";
    folder.write(contents + "Info.plist", information(name, identifier));
    return folder.copyExecutable(executable, contents + "Linux/" + name);
}

const Dictionary* recordFor(const Array& list, int pid) {
    for (const auto& value : list) {
        const auto& record = value.as<Dictionary>();
        if (record["pid"].intValue() == pid) return &record;
    }
    return nullptr;
}

bool check(const Array& list, std::string_view name, std::string_view identifier) {
    return okvCmnUtilSeams::launchMutexCheck(
        name, identifier, [&] { return list; }, [] { return std::string("own"); });
}

Dictionary named(Value name, Value identifier) {
    Dictionary record;
    if (!name.isNil()) record.set("CFBundleName", std::move(name));
    if (!identifier.isNil()) record.set("CFBundleIdentifier", std::move(identifier));
    return record;
}

struct WalkStep {
    okv::OSStatus next = okv::noErr;
    std::uint32_t pid = 0;
    okv::OSStatus information = okv::noErr;
    bool hasDictionary = true;
};

/// A Process Manager that answers as it is told to, one step for each process of the walk.
class ScriptedManager {
public:
    explicit ScriptedManager(std::vector<WalkStep> steps) : steps_(std::move(steps)) {}

    okv::OSStatus GetNextProcess(okv::ProcessSerialNumber* psn) {
        EXPECT_EQ(*psn, (okv::ProcessSerialNumber{0, now_.pid}));
        if (taken_ == steps_.size()) return ADD_FAILURE() << "one call too many", okv::procNotFound;
        now_ = steps_[taken_++];
        *psn = {0, now_.pid};
        return now_.next;
    }
    okv::OSStatus GetProcessInformation(const okv::ProcessSerialNumber* psn,
                                        okv::ProcessInfoRec* info) const {
        EXPECT_EQ(psn->lowLongOfPSN, now_.pid);
        EXPECT_EQ(info->processInfoLength, sizeof(okv::ProcessInfoRec));
        EXPECT_TRUE(info->processName == nullptr && info->processAppRef == nullptr);
        return now_.information;
    }
    std::optional<Dictionary> ProcessInformationCopyDictionary(const okv::ProcessSerialNumber*,
                                                               std::uint32_t mask) const {
        EXPECT_EQ(now_.information, okv::noErr);
        EXPECT_EQ(mask, 0xFFFFFFFFU);
        if (!now_.hasDictionary) return std::nullopt;
        return Dictionary{{"pid", now_.pid}};
    }

private:
    std::vector<WalkStep> steps_;
    std::size_t taken_ = 0;
    WalkStep now_;
};

Array walked(std::vector<WalkStep> steps) {
    ScriptedManager manager(std::move(steps));
    return okvCmnUtilSeams::processList(manager);
}

}  // namespace

TEST(ProcessList, EndsWhereNoProcessFollows) {
    EXPECT_EQ(walked({{okv::procNotFound, 9}}), Array{});
    EXPECT_EQ(walked({{okv::noErr, 4}, {okv::noErr, 0}}), (Array{Dictionary{{"pid", 4}}}));
}

TEST(ProcessList, GoesOnPastProcessesThatTellNothing) {
    EXPECT_EQ(walked({{okv::noErr, 4, okv::procNotFound},
                      {okv::noErr, 5, okv::noErr, false},
                      {okv::paramErr, 6},
                      {okv::noErr, 7},
                      {okv::procNotFound}}),
              (Array{Dictionary{{"pid", 6}}, Dictionary{{"pid", 7}}}));
}

TEST(LaunchMutexCheck, FindsEachOfTwoRunningApplicationsOfOneName) {
    const TempFolder one;
    const TempFolder other;
    const Child first(makeBundle(one, "Twin", "jp.example.one", processtest::sleeperPath()));
    const Child second(makeBundle(other, "Twin", "jp.example.other", processtest::sleeperPath()));
    EXPECT_TRUE(okvCmnUtil::launchMutexCheck_BundleIdentifer("Twin", "jp.example.one"));
    EXPECT_TRUE(okvCmnUtil::launchMutexCheck_BundleIdentifer("Twin", "jp.example.other"));
    EXPECT_FALSE(okvCmnUtil::launchMutexCheck_BundleIdentifer("Twin", "jp.example.third"));
}

TEST(ProcessList, HoldsTheBundlesOwnKeysWithPidAndPath) {
    const TempFolder folder;
    const Child child(
        makeBundle(folder, "Some App", "jp.example.some", processtest::sleeperPath()));
    const auto list = okvCmnUtil::processList();
    const auto* record = recordFor(list, child.pid());
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(*record, (Dictionary{{"CFBundleName", "Some App"},
                                   {"CFBundleIdentifier", "jp.example.some"},
                                   {"pid", child.pid()},
                                   {"BundlePath", folder / "Some App.app"}}));
    EXPECT_EQ(recordFor(list, getpid()), nullptr);
}

TEST(ProcessList, LeavesOutABundleWithoutInformation) {
    const TempFolder folder;
    const Child child(folder.copyExecutable(processtest::sleeperPath(), "A.app/Contents/Linux/A"));
    EXPECT_EQ(recordFor(okvCmnUtil::processList(), child.pid()), nullptr);
}

TEST(ProcessList, AnUnprivilegedProcessSeesARootsApplication) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to change accounts";
    const TempFolder folder;
    const Child child(makeBundle(folder, "Srv", "jp.example.srv", processtest::sleeperPath()));
    const int outcome = support::outcomeInAChild([] {
        if (setgid(processtest::kNobody) != 0 || setuid(processtest::kNobody) != 0) return 2;
        return okvCmnUtil::launchMutexCheck_BundleIdentifer("Srv", "jp.example.srv") ? 0 : 1;
    });
    EXPECT_EQ(outcome, 0);
}

TEST(LaunchMutexCheck, FindsARunningApplicationByNameAndIdentifier) {
    const TempFolder folder;
    const Child child(makeBundle(folder, "Mutex", "jp.example.mutex", processtest::sleeperPath()));
    EXPECT_TRUE(okvCmnUtil::launchMutexCheck_BundleIdentifer("Mutex", "jp.example.mutex"));
    EXPECT_FALSE(okvCmnUtil::launchMutexCheck_BundleIdentifer("Mutex", "jp.example.other"));
    EXPECT_FALSE(okvCmnUtil::launchMutexCheck_BundleIdentifer("mutex", "jp.example.mutex"));
    EXPECT_FALSE(okvCmnUtil::launchMutexCheck_BundleIdentifer("Mutex", ""));
    EXPECT_FALSE(okvCmnUtil::launchMutexCheck_BundleIdentifer("", "jp.example.mutex"));
}

TEST(LaunchMutexCheck, TheCallerItselfCountsAsRunning) {
    const TempFolder folder;
    const auto path = makeBundle(folder, "SelfCheck", "jp.example.selfcheck", OKV_TEST_SELF_CHECK);
    const auto outcome = support::outcomeInAChild(
        [&] { return execl(path.c_str(), path.c_str(), "", "jp.example.selfcheck", nullptr), 9; });
    EXPECT_EQ(outcome, 1);
}

TEST(LaunchMutexCheck, AnEmptyIdentifierAnswersNoWhateverTheName) {
    const Array list{named("own", ""), named("other", "")};
    EXPECT_FALSE(check(list, "other", ""));
    EXPECT_FALSE(check(list, "", ""));
}

TEST(LaunchMutexCheck, AnEmptyNameStandsForTheCallersOwn) {
    EXPECT_TRUE(check({named("own", "id")}, "", "id"));
    EXPECT_FALSE(check({named("other", "id")}, "", "id"));
    EXPECT_FALSE(check({named("", "id")}, "", "id"));
}

TEST(LaunchMutexCheck, AnotherIdentifierDoesNotEndTheWalk) {
    EXPECT_TRUE(check({named("a", "wrong"), named("a", "id")}, "a", "id"));
    EXPECT_FALSE(check({named("a", "wrong"), named("b", "id")}, "a", "id"));
}

TEST(LaunchMutexCheck, MissingOrForeignValuesDoNotMatch) {
    const Array list{named({}, "id"), named("a", {}), named(1, "id"), named("a", okv::Null{}),
                     Value("no dictionary")};
    EXPECT_FALSE(check(list, "a", "id"));
    EXPECT_FALSE(check(list, "1", "id"));
}

TEST(LaunchMutexCheck, FetchesTheListEvenWhenTheAnswerIsKnown) {
    int fetched = 0;
    const auto list = [&] { return ++fetched, Array{}; };
    EXPECT_FALSE(okvCmnUtilSeams::launchMutexCheck("a", "", list, [] { return std::string(); }));
    EXPECT_EQ(fetched, 1);
}
