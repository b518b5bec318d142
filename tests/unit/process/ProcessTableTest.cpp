#include <OKVPlatform/process/ProcessTable.h>

#include "support/ForkedChild.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "Support.h"

using okv::KernelProcessTable;
using okv::ProcessRecord;
using processtest::Child;
using support::TempFolder;

namespace {

constexpr std::int32_t kAll[] = {okv::kCtlKern, okv::kKernProc, okv::kKernProcAll, 0};

std::string statusText(int pid) {
    const auto id = std::to_string(pid);
    return "Name:\tp" + id + "\nTgid:\t" + id + "\nPid:\t" + id +
           "\nPPid:\t1\nUid:\t0\t0\t0\t0\nGid:\t0\t0\t0\t0\n";
}

void addProcess(const TempFolder& root, int pid) {
    root.write(std::to_string(pid) + "/status", statusText(pid));
}

int query(KernelProcessTable& table, void* buffer, std::size_t& length) {
    return table.sysctl(kAll, 3, buffer, &length, nullptr, 0);
}

std::vector<ProcessRecord> allRecords(const std::string& root = "/proc") {
    KernelProcessTable table(root);
    std::size_t length = 0;
    EXPECT_EQ(query(table, nullptr, length), 0);
    std::vector<ProcessRecord> records(length / sizeof(ProcessRecord));
    EXPECT_EQ(query(table, records.data(), length), 0);
    records.resize(length / sizeof(ProcessRecord));
    return records;
}

std::optional<ProcessRecord> recordOf(int pid) {
    for (const auto& record : allRecords())
        if (record.pid == pid) return record;
    return std::nullopt;
}

std::vector<int> pidsOf(const std::vector<ProcessRecord>& records) {
    std::vector<int> pids;
    for (const auto& record : records) pids.push_back(record.pid);
    std::sort(pids.begin(), pids.end());
    return pids;
}

struct Refusal {
    int result;
    int error;
    friend bool operator==(const Refusal&, const Refusal&) = default;
};

Refusal ask(const std::int32_t* name, std::uint32_t nameLength, const void* newValue = nullptr) {
    KernelProcessTable table;
    std::size_t length = 0;
    errno = 0;
    const int result = table.sysctl(name, nameLength, nullptr, &length, newValue, 0);
    return {result, errno};
}

}  // namespace

TEST(ProcessTable, ListsThisProcessAsTheSystemKnowsIt) {
    const auto record = recordOf(getpid());
    ASSERT_TRUE(record);
    EXPECT_EQ(record->parentPid, getppid());
    EXPECT_EQ(record->realUid, getuid());
    EXPECT_EQ(record->realGid, getgid());
    EXPECT_STREQ(record->command, "process_test");
}

TEST(ProcessTable, GivesTheRealIdsNotTheEffectiveOnes) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to change ids";
    const auto path = processtest::sleeperPath();
    const Child child(path, {{path, "--ids", "1234:65534"}});
    ASSERT_TRUE(child.isReady());
    const auto record = recordOf(child.pid());
    ASSERT_TRUE(record);
    EXPECT_EQ(record->realUid, 1234U);
    EXPECT_EQ(record->realGid, 1234U);
    EXPECT_EQ(record->parentPid, getpid());
}

class StrangeName : public testing::TestWithParam<const char*> {};

TEST_P(StrangeName, OfAProcessConfusesNothing) {
    const auto path = processtest::sleeperPath();
    const Child child(path, {{path, "--name", GetParam()}});
    const auto record = recordOf(child.pid());
    ASSERT_TRUE(record);
    EXPECT_STREQ(record->command, std::string(GetParam()).substr(0, 15).c_str());
    EXPECT_EQ(record->parentPid, getpid());
    EXPECT_EQ(record->realUid, getuid());
}

TEST_P(StrangeName, OfAnExecutableConfusesNothing) {
    const std::string name = GetParam();
    const TempFolder folder;
    const Child child(folder.copyExecutable(processtest::sleeperPath(), name));
    const auto record = recordOf(child.pid());
    ASSERT_TRUE(record);
    EXPECT_STREQ(record->command, name.substr(0, 15).c_str());
    EXPECT_EQ(record->realUid, getuid());
}

INSTANTIATE_TEST_SUITE_P(Rows, StrangeName,
                         testing::Values("two words", "a) R 1 (b", "((", "\nPid:\t1\nUid:\t9",
                                         "back\\nslash\\", "\xff\xfe\x80 bytes", " ",
                                         "sixteen and more bytes"));

TEST(ProcessTable, AProcessMayCallItselfWhatNoFileIsCalled) {
    const auto path = processtest::sleeperPath();
    for (const char* name : {"", "a/b"}) {
        const Child child(path, {{path, "--name", name}});
        const auto record = recordOf(child.pid());
        ASSERT_TRUE(record);
        EXPECT_STREQ(record->command, name);
    }
}

TEST(ProcessTable, SkipsWhatVanishesDuringTheWalkAndWhatIsNoProcess) {
    const TempFolder root;
    addProcess(root, 1);
    root.makeFolder("2");
    root.write("3/status", "");
    root.write("4/status", "Name:\thalf\nPid:\t4\n");
    addProcess(root, 5);
    for (const char* name : {"self", "0", "007", "12x", "99999999999", "-6"})
        root.write(std::string(name) + "/status", statusText(6));
    EXPECT_EQ(pidsOf(allRecords(root.path())), (std::vector<int>{1, 5}));
}

TEST(ProcessTable, KeepsListingWhileProcessesComeAndGo) {
    for (int round = 0; round < 20; ++round) {
        std::vector<pid_t> children;
        for (int i = 0; i < 10; ++i) {
            children.push_back(fork());
            if (children.back() == 0) _exit(0);
        }
        EXPECT_TRUE(recordOf(getpid()));
        for (const auto pid : children) waitpid(pid, nullptr, 0);
    }
}

TEST(ProcessTable, ASmallBufferIsFilledWithWholeRecordsAndRefused) {
    const TempFolder root;
    for (int pid : {1, 2, 3}) addProcess(root, pid);
    KernelProcessTable table(root.path());
    std::vector<char> buffer(3 * sizeof(ProcessRecord), 'x');
    std::size_t length = 2 * sizeof(ProcessRecord) + 5;
    EXPECT_EQ(query(table, buffer.data(), length), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(length, 2 * sizeof(ProcessRecord));
    EXPECT_EQ(std::count(buffer.begin() + 2 * sizeof(ProcessRecord), buffer.end(), 'x'),
              static_cast<std::ptrdiff_t>(sizeof(ProcessRecord)));
}

TEST(ProcessTable, ABufferOfJustTheRightSizeIsEnough) {
    const TempFolder root;
    for (int pid : {1, 2, 3}) addProcess(root, pid);
    KernelProcessTable table(root.path());
    std::vector<char> buffer(3 * sizeof(ProcessRecord) + 1);
    std::size_t length = buffer.size() - 1;
    // The buffer is also not aligned.
    EXPECT_EQ(query(table, buffer.data() + 1, length), 0);
    EXPECT_EQ(length, 3 * sizeof(ProcessRecord));
}

TEST(ProcessTable, AnEmptyBufferIsTooSmallUnlessThereIsNothing) {
    const TempFolder root;
    KernelProcessTable table(root.path());
    char buffer = 0;
    std::size_t length = 0;
    EXPECT_EQ(query(table, &buffer, length), 0);
    addProcess(root, 1);
    EXPECT_EQ(query(table, &buffer, length), -1);
    EXPECT_EQ(errno, ENOMEM);
}

TEST(ProcessTable, TellsASizeWithRoomToSpare) {
    const TempFolder root;
    for (int pid = 1; pid <= 100; ++pid) addProcess(root, pid);
    KernelProcessTable table(root.path());
    std::size_t length = 0;
    EXPECT_EQ(query(table, nullptr, length), 0);
    EXPECT_GT(length, 100 * sizeof(ProcessRecord));
    EXPECT_LT(length, 200 * sizeof(ProcessRecord));
}

TEST(ProcessTable, CountsForItselfWhereTheFolderDoesNotTellItsLinks) {
    const TempFolder root;
    const TempFolder elsewhere;
    addProcess(elsewhere, 1);
    for (int pid = 1; pid <= 100; ++pid)
        std::filesystem::create_directory_symlink(elsewhere / "1", root / std::to_string(pid));
    EXPECT_EQ(allRecords(root.path()).size(), 100U);
}

TEST(ProcessTable, AFourthComponentOfTheNameIsNotLookedAt) {
    EXPECT_EQ(ask(kAll, 4), (Refusal{0, 0}));
}

TEST(ProcessTable, ANameOfMoreThanTwelveComponentsIsRefusedUnread) {
    EXPECT_EQ(ask(nullptr, 13), (Refusal{-1, EINVAL}));
    EXPECT_EQ(ask(kAll, 16), (Refusal{-1, EINVAL}));
}

TEST(ProcessTable, OtherNamesAreUnknown) {
    constexpr std::int32_t kOthers[][3] = {{2, 14, 0}, {1, 15, 0}, {1, 14, 1}};
    for (const auto& name : kOthers) EXPECT_EQ(ask(name, 3), (Refusal{-1, ENOENT}));
    EXPECT_EQ(ask(kAll, 2), (Refusal{-1, ENOENT}));
    EXPECT_EQ(ask(nullptr, 0), (Refusal{-1, ENOENT}));
    constexpr std::int32_t kLong[12] = {okv::kCtlKern, okv::kKernProc, okv::kKernProcAll};
    EXPECT_EQ(ask(kLong, 12), (Refusal{-1, ENOENT}));
}

TEST(ProcessTable, NothingCanBeSet) {
    EXPECT_EQ(ask(kAll, 3, kAll), (Refusal{-1, EPERM}));
}

TEST(ProcessTable, AMissingLengthIsRefused) {
    KernelProcessTable table;
    EXPECT_EQ(table.sysctl(kAll, 3, nullptr, nullptr, nullptr, 0), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(ProcessTable, AFolderThatCannotBeReadIsAnError) {
    const TempFolder root;
    std::size_t length = 0;
    KernelProcessTable missing(root / "missing");
    EXPECT_EQ(query(missing, nullptr, length), -1);
    EXPECT_EQ(errno, ENOENT);
    KernelProcessTable file(root.write("file", ""));
    EXPECT_EQ(query(file, nullptr, length), -1);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST(ProcessTable, RunningOutOfDescriptorsIsAnErrorAndNoShortList) {
    const int outcome = support::outcomeInAChild([] {
        std::vector<ProcessRecord> records(100000);
        KernelProcessTable table;
        std::size_t length = records.size() * sizeof(ProcessRecord);
        query(table, records.data(),
              length);  // a sanitizer's first look at the object needs descriptors itself
        const auto next = static_cast<rlim_t>(dup(0));
        const rlimit limit{next + 1, next + 1};
        close(static_cast<int>(next));
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return 1;
        length = records.size() * sizeof(ProcessRecord);
        if (query(table, records.data(), length) != -1 || errno != EMFILE) return 2;
        return length == 0 ? 0 : 3;
    });
    EXPECT_EQ(outcome, 0);
}
