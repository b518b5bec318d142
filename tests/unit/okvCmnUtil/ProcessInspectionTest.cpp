#include <OKVDataManager/okvCmnUtil.h>
#include <OKVDataManager/okvCmnUtilSeams.h>

#include "support/ForkedChild.h"

#include <gtest/gtest.h>

#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "unit/process/Support.h"

using okv::Array;
using okv::Dictionary;
using okv::ProcessRecord;
using okv::Value;
using processtest::Child;

namespace {

ProcessRecord recordWith(std::int32_t pid, const char* command = "tool") {
    ProcessRecord record{pid, 1, 2, 3, {}};
    std::strncpy(record.command, command, okv::kMaxCommandLength);
    return record;
}

// What the kernel answers to one call, and what it puts into the buffer if there is one.
struct Step {
    int result = 0;
    int error = 0;
    std::size_t length = 0;
    std::vector<ProcessRecord> records = {};
};

struct Call {
    bool hasBuffer;
    std::size_t length;
    friend bool operator==(const Call&, const Call&) = default;
};

// A kernel that answers as it is told to, one step a call, and remembers how it was asked.
class ScriptedTable final : public okv::ProcessTable {
public:
    explicit ScriptedTable(std::vector<Step> steps) : steps_(std::move(steps)) {}

    int sysctl(const std::int32_t* name, std::uint32_t nameLength, void* buffer,
               std::size_t* length, const void* newValue, std::size_t newLength) override {
        errno = EINVAL;
        if (nameLength > okv::kMaxNameLength) return -1;
        EXPECT_EQ(std::vector<int>(name, name + nameLength), (std::vector<int>{1, 14, 0}));
        EXPECT_TRUE(newValue == nullptr && newLength == 0);
        calls.push_back({buffer != nullptr, *length});
        if (calls.size() > steps_.size()) return ADD_FAILURE() << "one call too many", -1;
        const auto& step = steps_[calls.size() - 1];
        fill(buffer, *length, step.records);
        *length = step.length;
        errno = step.error;
        return step.result;
    }

    std::vector<Call> calls;

private:
    static void fill(void* buffer, std::size_t size, const std::vector<ProcessRecord>& records) {
        if (buffer == nullptr || records.empty()) return;
        std::memcpy(buffer, records.data(), std::min(size, records.size() * sizeof(ProcessRecord)));
    }

    std::vector<Step> steps_;
};

constexpr auto kSize = sizeof(ProcessRecord);

Array listOf(ScriptedTable& kernel) {
    return okvCmnUtilSeams::processListBSD(kernel, std::malloc);
}

std::vector<int> pidsOf(const Array& list) {
    std::vector<int> pids;
    for (const auto& record : list) pids.push_back(record.as<Dictionary>()["pid"].intValue());
    return pids;
}

const Dictionary kZeroRecord{{"pid", 0},           {"uid", 0},       {"gid", 0},
                             {"CFBundleName", ""}, {"parentpid", 0}, {"BundlePath", "(null)"}};

// One way through the fetch: what the kernel answers, how it must be asked, which pids come out
// (the record past the last reads 0).
struct FetchRow {
    const char* name;
    std::vector<Step> steps;
    std::vector<Call> calls;
    std::vector<int> pids;
};

void PrintTo(const FetchRow& row, std::ostream* out) {
    *out << row.name;
}

class Fetch : public testing::TestWithParam<FetchRow> {};

}  // namespace

TEST_P(Fetch, EndsAsTheKernelsAnswersSay) {
    ScriptedTable kernel(GetParam().steps);
    const auto list = listOf(kernel);
    EXPECT_EQ(kernel.calls, GetParam().calls);
    EXPECT_EQ(pidsOf(list), GetParam().pids);
    EXPECT_EQ(list.back(), Value(kZeroRecord));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, Fetch,
    testing::Values(
        FetchRow{"Works",
                 {{0, 0, 9 * kSize}, {0, 0, 2 * kSize, {recordWith(4), recordWith(5)}}},
                 {{false, 0}, {true, 9 * kSize}},
                 {4, 5, 0}},
        FetchRow{"FindsNothing", {{0, 0, 0}, {0, 0, 0}}, {{false, 0}, {true, 0}}, {0}},
        FetchRow{"FirstCallFailsWithAnError", {{-1, EPERM, 0}}, {{false, 0}}, {0}},
        FetchRow{
            "FirstCallFailsWithAnErrorAndALength", {{-1, EPERM, 5 * kSize}}, {{false, 0}}, {0}},
        FetchRow{"FirstCallFailsWithoutAnErrorAndGoesOnWithoutABuffer",
                 {{-1, 0, 0}, {0, 0, 7 * kSize}},
                 {{false, 0}, {false, 0}},
                 {0}},
        FetchRow{"FirstCallAnswersSomethingElse", {{5, 0, 9 * kSize}}, {{false, 0}}, {0}},
        FetchRow{"FirstCallAnswersTwelve", {{ENOMEM, 0, 9 * kSize}}, {{false, 0}}, {0}},
        FetchRow{"SecondCallFailsWithAnErrorAndAPartIsThere",
                 {{0, 0, 9 * kSize}, {-1, ENOMEM, kSize, {recordWith(4)}}},
                 {{false, 0}, {true, 9 * kSize}},
                 {4, 0}},
        FetchRow{"SecondCallFailsWithoutAnErrorAndTheFetchBeginsAgain",
                 {{0, 0, 9 * kSize}, {-1, 0, 0}, {0, 0, 3 * kSize}, {0, 0, kSize, {recordWith(4)}}},
                 {{false, 0}, {true, 9 * kSize}, {false, 0}, {true, 3 * kSize}},
                 {4, 0}},
        FetchRow{
            "SecondCallFailsWithoutAnErrorAndTheBufferStays",
            {{0, 0, 9 * kSize}, {-1, 0, 0, {recordWith(4)}}, {-1, 0, 2 * kSize}, {0, 0, kSize}},
            {{false, 0}, {true, 9 * kSize}, {false, 0}, {true, 2 * kSize}},
            {4, 0}},
        FetchRow{"SecondCallAnswersTwelveAndTheBufferIsForgotten",
                 {{0, 0, 9 * kSize}, {ENOMEM, 0, 0, {recordWith(4)}}, {-1, 0, 0}, {0, 0, kSize}},
                 {{false, 0}, {true, 9 * kSize}, {false, 0}, {false, 0}},
                 {0}},
        FetchRow{
            "SecondCallAnswersTwelveAndTheFetchBeginsAgain",
            {{0, 0, 9 * kSize}, {ENOMEM, 0, 0}, {0, 0, 20 * kSize}, {0, 0, kSize, {recordWith(4)}}},
            {{false, 0}, {true, 9 * kSize}, {false, 0}, {true, 20 * kSize}},
            {4, 0}},
        FetchRow{"SecondCallAnswersSomethingElse",
                 {{0, 0, 9 * kSize}, {7, 0, kSize, {recordWith(4)}}},
                 {{false, 0}, {true, 9 * kSize}},
                 {4, 0}},
        FetchRow{"APartOfARecordDoesNotCount",
                 {{0, 0, 9 * kSize}, {0, 0, 2 * kSize - 1, {recordWith(4), recordWith(5)}}},
                 {{false, 0}, {true, 9 * kSize}},
                 {4, 0}},
        FetchRow{"ALengthBeyondTheBufferIsNotBelieved",
                 {{0, 0, kSize}, {0, 0, 100 * kSize, {recordWith(4)}}},
                 {{false, 0}, {true, kSize}},
                 {4, 0}}),
    [](const testing::TestParamInfo<FetchRow>& row) { return std::string(row.param.name); });

TEST(ProcessListBSD, WithoutMemoryHoldsTheZeroFilledRecordAlone) {
    ScriptedTable kernel({{0, 0, 9 * kSize}});
    std::size_t wanted = 0;
    const auto list = okvCmnUtilSeams::processListBSD(kernel, [&](std::size_t size) -> void* {
        wanted = size;
        return nullptr;
    });
    EXPECT_EQ(kernel.calls.size(), 1U);
    EXPECT_EQ(wanted, 9 * kSize);
    EXPECT_EQ(list, Array{kZeroRecord});
}

TEST(ProcessListBSD, ARecordHasItsKeysInOrderAndItsNumbersWithASign) {
    ProcessRecord record{7, 6, 4294967294U, 4294967295U, "name"};
    ScriptedTable kernel({{0, 0, kSize}, {0, 0, kSize, {record}}});
    const auto list = listOf(kernel);
    const auto& fields = list.front().as<Dictionary>();
    EXPECT_EQ(fields, (Dictionary{{"pid", 7},
                                  {"uid", -2},
                                  {"gid", -1},
                                  {"CFBundleName", "name"},
                                  {"parentpid", 6},
                                  {"BundlePath", "(null)"}}));
    std::vector<std::string> keys;
    for (const auto& entry : fields) keys.push_back(entry.key.as<std::string>());
    EXPECT_EQ(keys, (std::vector<std::string>{"pid", "uid", "gid", "CFBundleName", "parentpid",
                                              "BundlePath"}));
}

TEST(ProcessListBSD, ListsTheRunningProcessesAndOneRecordMore) {
    const Child child(processtest::sleeperPath());
    const auto list = okvCmnUtil::processListBSD();
    ASSERT_GT(list.size(), 2U);
    EXPECT_EQ(list.back(), Value(kZeroRecord));
    const auto pids = pidsOf(list);
    EXPECT_EQ(std::count(pids.begin(), pids.end(), getpid()), 1);
    EXPECT_EQ(std::count(pids.begin(), pids.end(), child.pid()), 1);
    EXPECT_EQ(std::count(pids.begin(), pids.end(), 0), 1);
}

TEST(ProcessListBSD, HoldsStrangeNamesAsTheyAre) {
    const auto path = processtest::sleeperPath();
    const Child child(path, {{path, "--name", "a) \n\xff("}});
    const auto info = okvCmnUtil::processInfoBSD(child.pid());
    ASSERT_TRUE(info);
    EXPECT_EQ((*info)["CFBundleName"], Value("a) \n\xff("));
    EXPECT_EQ((*info)["parentpid"], Value(getpid()));
}

TEST(ProcessInfoBSD, FindsARunningProcess) {
    const auto info = okvCmnUtil::processInfoBSD(getpid());
    ASSERT_TRUE(info);
    EXPECT_EQ((*info)["pid"], Value(getpid()));
    EXPECT_EQ((*info)["uid"], Value(static_cast<std::int32_t>(getuid())));
    EXPECT_EQ((*info)["gid"], Value(static_cast<std::int32_t>(getgid())));
    EXPECT_EQ((*info)["parentpid"], Value(getppid()));
    EXPECT_EQ((*info)["BundlePath"], Value("(null)"));
}

TEST(ProcessInfoBSD, FindsNoProcessThatDoesNotRun) {
    const pid_t gone = fork();
    if (gone == 0) _exit(0);
    waitpid(gone, nullptr, 0);
    EXPECT_FALSE(okvCmnUtil::processInfoBSD(gone));
    EXPECT_FALSE(okvCmnUtil::processInfoBSD(-1));
}

TEST(ProcessInfoBSD, TheRecordPastTheLastHasProcessIdZero) {
    EXPECT_EQ(okvCmnUtil::processInfoBSD(0), kZeroRecord);
}

TEST(ProcessInfoBSD, TheFirstOfSeveralRecordsCountsAndAnEmptyListHasNone) {
    const Array list{Dictionary{{"pid", 4}, {"n", 1}}, Dictionary{{"pid", 4}, {"n", 2}}};
    EXPECT_EQ((*okvCmnUtilSeams::processInfoBSD(list, 4))["n"], Value(1));
    EXPECT_FALSE(okvCmnUtilSeams::processInfoBSD({}, 4));
}

TEST(ProcessInfoBSD, TheRecordIsTheCallersOwnAndNotTheLists) {
    const Array list{Dictionary{{"pid", 4}, {"CFBundleName", "tool"}}};
    auto record = okvCmnUtilSeams::processInfoBSD(list, 4);
    ASSERT_TRUE(record);
    EXPECT_NE(&*record, &list.front().as<Dictionary>());
    record->set("CFBundleName", "changed");
    EXPECT_EQ(list.front(), Value(Dictionary{{"pid", 4}, {"CFBundleName", "tool"}}));
}

TEST(GetPathName, AnswersNullForEveryProcess) {
    for (const int pid : {getpid(), 1, 0, -1}) EXPECT_EQ(getPathName(pid), nullptr);
}

namespace {

// A kernel that does answer the name of 16 components.
class AnsweringTable final : public okv::ProcessTable {
public:
    AnsweringTable(int result, std::size_t length, std::string text)
        : result_(result), length_(length), text_(std::move(text)) {}

    int sysctl(const std::int32_t* name, std::uint32_t nameLength, void* buffer,
               std::size_t* length, const void*, std::size_t) override {
        EXPECT_EQ(nameLength, 16U);
        EXPECT_EQ(std::vector<int>(name, name + 4), (std::vector<int>{1, 14, 0, 42}));
        EXPECT_EQ(*length, 1024U);
        std::memcpy(buffer, text_.c_str(), std::min<std::size_t>(text_.size() + 1, 1024));
        *length = length_;
        return result_;
    }

private:
    int result_;
    std::size_t length_;
    std::string text_;
};

std::string pathFrom(AnsweringTable table) {
    const std::unique_ptr<char, okvCmnUtilSeams::FreeBuffer> path(
        okvCmnUtilSeams::pathName(table, 42));
    return path ? std::string(path.get()) : "none";
}

}  // namespace

TEST(GetPathName, CopiesWhatAKernelAnswers) {
    EXPECT_EQ(pathFrom({0, 9, "/bin/tool"}), "/bin/tool");
    EXPECT_EQ(pathFrom({0, 1024, std::string(2000, 'x')}), std::string(1024, 'x'));
}

TEST(GetPathName, AnswersNullForAFailureNoLengthOrNoText) {
    EXPECT_EQ(pathFrom({1, 9, "/bin/tool"}), "none");
    EXPECT_EQ(pathFrom({-1, 9, "/bin/tool"}), "none");
    EXPECT_EQ(pathFrom({0, 0, "/bin/tool"}), "none");
    EXPECT_EQ(pathFrom({0, 9, ""}), "none");
}

TEST(ThisProcess, KnowsItsIdAndItsName) {
    EXPECT_EQ(okvCmnUtil::processID(), getpid());
    EXPECT_EQ(okvCmnUtil::processName(), "okvcmnutil_process_test");
}

TEST(ThisProcess, HandsOutItsNameAsANewTextEachTime) {
    const auto& first = okvCmnUtil::processName();
    const auto& second = okvCmnUtil::processName();
    EXPECT_NE(&first, &second);
    EXPECT_NE(static_cast<const void*>(first.data()),
              static_cast<const void*>(program_invocation_short_name));
    EXPECT_EQ(second, "okvcmnutil_process_test");
}

TEST(ThisProcess, KnowsTheLoginNameOfItsAccount) {
    const passwd* account = getpwuid(getuid());
    if (account == nullptr) GTEST_SKIP() << "this account has no name";
    EXPECT_EQ(okvCmnUtil::processUserName(), account->pw_name);
}

TEST(ThisProcess, AnAccountWithoutANameHasAnEmptyOne) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to change accounts";
    const auto outcome = support::outcomeInAChild([] {
        if (setresuid(1234567, 0, 0) != 0) return 2;
        return okvCmnUtil::processUserName().empty() ? 0 : 1;
    });
    EXPECT_EQ(outcome, 0);
}

TEST(ThisProcess, TheRealAccountCountsNotTheEffectiveOne) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to change accounts";
    const auto outcome = support::outcomeInAChild([] {
        if (setresuid(processtest::kNobody, 0, 0) != 0) return 2;
        return okvCmnUtil::processUserName() == "nobody" ? 0 : 1;
    });
    EXPECT_EQ(outcome, 0);
}

static_assert(std::is_base_of_v<okv::Object, okvCmnUtil>);
