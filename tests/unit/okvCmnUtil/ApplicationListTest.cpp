#include <OKVDataManager/okvCmnUtil.h>
#include <OKVDataManager/okvCmnUtilSeams.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <string>
#include <string_view>

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

}  // namespace

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
    const int outcome = processtest::inFork([] {
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
    const auto outcome = processtest::inFork(
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
