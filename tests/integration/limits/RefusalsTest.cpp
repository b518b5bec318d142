#include "LoggedServer.h"
#include "RightsTable.h"

#include <gtest/gtest.h>

#include <charconv>
#include <cstring>

// What a refusal tells: to the log who asked for what, to the caller nothing of what there is.

namespace limits_test {
namespace {

constexpr char kMore[] = " more refused requests";

class Refusals : public testing::Test {
protected:
    void SetUp() override {
        if (!LoggedServer::isPossible()) GTEST_SKIP() << "only root can be another account";
    }
    LoggedServer server_;
};

/// Runs the body as the account; answers the process that it was.
pid_t processOf(uid_t uid, const std::function<void(okv::RemoteObject&)>& body) {
    int ends[2];
    if (pipe(ends) != 0) return -1;
    const int code = faults::asAccount(uid, [&] {
        const pid_t self = getpid();
        body(*faults::connect());
        return write(ends[1], &self, sizeof self) == sizeof self ? 0 : 1;
    });
    EXPECT_EQ(code, 0);
    pid_t process = -1;
    const auto count = code == 0 ? read(ends[0], &process, sizeof process) : 0;
    EXPECT_EQ(count, ssize_t{sizeof process});
    close(ends[0]);
    close(ends[1]);
    return process;
}

std::string refused(const char* selector, uid_t uid, pid_t process) {
    return std::string("refused ") + selector + " to uid " + std::to_string(uid) + ", process " +
           std::to_string(process);
}

// Everywhere in the value, the one key for the other.
Value withKey(const Value& value, const char* key) {
    if (value == Value(kKey)) return key;
    if (const auto* array = value.getIf<okv::Array>()) {
        okv::Array changed;
        for (const auto& element : *array) changed.push_back(withKey(element, key));
        return changed;
    }
    const auto* dictionary = value.getIf<okv::Dictionary>();
    if (dictionary == nullptr) return value;
    okv::Dictionary changed;
    for (const auto& entry : *dictionary)
        changed.set(withKey(entry.key, key), withKey(entry.value, key));
    return changed;
}

// The row about the other account and its user instead of the caller's.
Row aboutAnother(Row row) {
    for (auto& argument : row.arguments) {
        if (argument == Value(kOwnUser)) argument = kOtherUser;
        if (argument == Value(kAccount)) argument = kOtherAccount;
    }
    return row;
}

// In the caller's process: how many rows with a key are refused, always with the same bytes whether
// the key is there or not; -1 when one tells the difference.
int rowsThatTellNothing(Row (*changed)(Row)) {
    const auto root = faults::connect();
    int compared = 0;
    for (const auto& original : rightsTable()) {
        const auto row = changed(original);
        const Row other{row.selector, row.grantedTo,
                        withKey(row.arguments, kMissingKey).as<okv::Array>()};
        if (row.grantedTo == Class::read || other.arguments == row.arguments) continue;
        const auto reply = replyTo(*root, row);
        if (!refusalIn(reply) || reply != replyTo(*root, other)) return -1;
        ++compared;
    }
    return compared;
}

}  // namespace

TEST_F(Refusals, AreLoggedWithTheUidAndTheProcessThatTheKernelNames) {
    ASSERT_TRUE(server_.start());
    furnish();
    const auto process = processOf(kAccount, [](okv::RemoteObject& root) {
        okv::send<&Data::setOKVDataPT_value_appUid>(root, kKey, "x", kOwnUser);
        okv::send<&Admin::exportDataPT>(root);
    });
    EXPECT_EQ(server_.line(), refused("setOKVDataPT:value:appUid:", kAccount, process));
    EXPECT_EQ(server_.line(), refused("exportDataPT", kAccount, process));
}

TEST_F(Refusals, ThatAreFoundWhereTheChangeIsMadeAreLoggedToo) {
    ASSERT_TRUE(server_.start({"--self-service"}));
    furnish();
    const auto process = processOf(kAccount, [](okv::RemoteObject& root) {
        okv::send<&Data::setOKVDataPT_value_appUid>(root, kKey, "x", kOwnUser);
        okv::send<&Data::setOKVDataPT_value_appUid>(root, "", "bad, not forbidden", kOwnUser);
        okv::send<&Data::setOKVDataPT_value_appUid>(root, kKey, "x", kOtherUser);
    });
    EXPECT_EQ(server_.line(), refused("setOKVDataPT:value:appUid:", kAccount, process));
    EXPECT_EQ(faults::status(*faults::connect())["refused"], Value(1));
}

TEST_F(Refusals, ThatComeAsAFloodMakeFewLinesAndTheirNumberIsTold) {
    constexpr std::int64_t kFlood = 10000;
    ASSERT_TRUE(server_.start());
    processOf(kAccount, [](okv::RemoteObject& root) {
        for (int i = 0; i < kFlood; ++i) okv::send<&Data::reloadDataPT>(root);
    });
    std::int64_t told = 0;
    int lines = 0;
    while (told < kFlood) {
        const auto line = server_.line();
        ASSERT_FALSE(line.empty()) << "only " << told << " are told of";
        ++lines;
        std::int64_t more = 1;
        if (line.ends_with(kMore)) std::from_chars(line.data(), line.data() + line.size(), more);
        told += more;
    }
    EXPECT_EQ(told, kFlood);
    // Eleven for every ten seconds that it took; it takes one.
    EXPECT_LE(lines, 11 * faults::kSlowness);
}

TEST_F(Refusals, AreAnsweredAndReadsTooWhileTheLogHangs) {
    ASSERT_TRUE(server_.start());
    furnish();
    EXPECT_GT(server_.fillLog(), 0U);
    processOf(kAccount, [](okv::RemoteObject& root) {
        for (int i = 0; i < 3000; ++i) okv::send<&Data::reloadDataPT>(root);
        if (okv::send<&Data::okvDataPT>(root, kKey) != Value("all")) _exit(97);
    });
    const auto root = faults::connect();
    EXPECT_TRUE(faults::set(*root, "k", 1)) << "nor does a change wait for the log";
    EXPECT_EQ(faults::get(*root, "k"), Value(1));
    server_.process.signal(SIGTERM);
    EXPECT_EQ(server_.process.wait(), 0) << "nor does the end";
}

TEST_F(Refusals, AreTheSameBytesWhetherTheKeyIsThereOrNot) {
    ASSERT_TRUE(server_.start());
    furnish();
    const auto asItIs = +[](Row row) { return row; };
    EXPECT_EQ(faults::asAccount(kAccount, [&] { return rowsThatTellNothing(asItIs); }), 8);
    EXPECT_EQ(faults::asAccount(65534, [&] { return rowsThatTellNothing(asItIs); }), 8);
}

TEST_F(Refusals, OfAnothersUserAreTheSameBytesWhetherTheKeyIsThereOrNot) {
    ASSERT_TRUE(server_.start({"--self-service"}));
    furnish();
    EXPECT_EQ(faults::asAccount(kAccount, [] { return rowsThatTellNothing(aboutAnother); }), 8);
}

}  // namespace limits_test
