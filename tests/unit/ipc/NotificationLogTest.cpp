#include "LogRecords.h"

#include <OKVPlatform/ipc/NotificationLogReader.h>
#include <OKVPlatform/ipc/NotificationLogWriter.h>
#include <OKVPlatform/ipc/PeerIdentity.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <csignal>
#include <cstdarg>
#include <fstream>
#include <functional>
#include <utility>

#include "support/Files.h"
#include "support/NotificationTesting.h"

using ipctest::rawRecord;
using ipctest::record;
using notification_test::Folder;
using okv::Notification;
using okv::NotificationError;
using okv::NotificationLogReader;
using okv::NotificationLogWriter;
using okv::Value;
using support::bytesOf;

namespace {

/// Called once, before this process makes a file that must not be there yet. It must open nothing
/// of the kind itself: who does waits for the one that is being opened.
std::function<void()> beforeMaking;

}  // namespace

#pragma GCC visibility push(default)
extern "C" int openat(int folder, const char* path, int flags, ...) {
    static auto* const next =
        reinterpret_cast<int (*)(int, const char*, int, ...)>(dlsym(RTLD_NEXT, "openat"));
    va_list more;
    va_start(more, flags);
    const auto mode = (flags & O_CREAT) != 0 ? va_arg(more, mode_t) : 0;
    va_end(more);
    if ((flags & O_EXCL) != 0 && beforeMaking) std::exchange(beforeMaking, nullptr)();
    return next(folder, path, flags, mode);
}
#pragma GCC visibility pop

namespace {

void appendToFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::app) << bytes;
}

/// What there is to read, the gaps as "-count".
std::string readAll(NotificationLogReader& reader, bool pathToo = true) {
    std::string read;
    reader.refresh(pathToo);
    while (const auto entry = reader.next()) {
        if (entry->sequence > entry->missedFrom)
            read += " -" + std::to_string(entry->sequence - entry->missedFrom);
        if (entry->notification) read += " " + entry->notification->name;
    }
    return read;
}

NotificationError::Kind kindOfFailure(NotificationLogWriter& writer, const Notification& notice) {
    try {
        writer.post(notice);
    } catch (const NotificationError& error) {
        EXPECT_STRNE(error.what(), "");
        return error.kind();
    }
    ADD_FAILURE() << "the notice was posted";
    return {};
}

class NotificationLog : public testing::Test {
protected:
    Folder folder_;
    NotificationLogWriter writer_{folder_.path(), {}};
    NotificationLogReader reader_{folder_.path()};
};

}  // namespace

TEST_F(NotificationLog, GivesWhatIsPostedAfterTheReaderStoodAtTheEnd) {
    writer_.post({"before", {}, {}});
    reader_.skipToEnd();
    EXPECT_EQ(readAll(reader_), "");
    writer_.post({"a", {}, {}});
    writer_.post({"b", {}, {}});
    EXPECT_EQ(readAll(reader_, false), " a b");
    EXPECT_EQ(readAll(reader_, false), "");
}

TEST_F(NotificationLog, IsReadableByAllAndItsLockByTheOwnerAlone) {
    const auto mask = umask(077);
    writer_.post({"a", {}, {}});
    umask(mask);
    struct stat status {};
    ASSERT_EQ(stat(folder_.log().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0644U);
    ASSERT_EQ(stat(folder_.lock().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(NotificationLog, CutsATornTailBeforeItGrowsWhoeverPosts) {
    const auto torn = record(2, {"torn", {}, std::string(100, 'x')});
    for (std::size_t size = 1; size < torn.size(); size += 7) {
        folder_.remove();
        folder_.make();
        writer_.post({"a", {}, {}});
        const auto whole = bytesOf(folder_.log());
        reader_.skipToEnd();
        appendToFile(folder_.log(), torn.substr(0, size));
        EXPECT_EQ(readAll(reader_), "") << size;
        NotificationLogWriter other(folder_.path(), {});
        (size % 2 == 0 ? other : writer_).post({"b", {}, {}});
        EXPECT_EQ(readAll(reader_), " b") << size;
        EXPECT_EQ(bytesOf(folder_.log()), whole + record(2, {"b", {}, {}})) << size;
    }
}

TEST_F(NotificationLog, ATornRecordThatIsCutInMidReadingIsReadAnew) {
    writer_.post({"a", {}, {}});
    reader_.skipToEnd();
    const auto good = record(2, {"good", {}, std::string(300, 'g')});
    appendToFile(folder_.log(), record(2, {"torn", {}, std::string(300, 't')}).substr(0, 200));
    EXPECT_EQ(readAll(reader_), "");
    writer_.post({"good", {}, std::string(300, 'g')});
    EXPECT_EQ(readAll(reader_), " good");
}

TEST_F(NotificationLog, ATailThatIsNoRecordIsLeftBehindWithItsFile) {
    const std::pair<std::string, std::string> rows[] = {
        {std::string(16, '\0'), " b c"},
        {std::string(40, '\xFF'), " b c"},
        {record(3, {"changed", {}, 1}).replace(20, 1, "?"), " b c"},
        {rawRecord(9, "wrong number"), " b -7 c"}};
    for (const auto& [tail, expected] : rows) {
        folder_.remove();
        folder_.make();
        writer_.post({"a", {}, {}});
        reader_.skipToEnd();
        writer_.post({"b", {}, {}});
        appendToFile(folder_.log(), tail);
        NotificationLogWriter(folder_.path(), {}).post({"c", {}, {}});
        EXPECT_EQ(readAll(reader_), expected);
    }
}

TEST_F(NotificationLog, AWholeRecordThatIsNoNoticeCountsAsMissed) {
    writer_.post({"a", {}, {}});
    reader_.skipToEnd();
    appendToFile(folder_.log(), rawRecord(2, "not cbor at all"));
    writer_.post({"b", {}, {}});
    EXPECT_EQ(readAll(reader_), " -1 b");
}

TEST_F(NotificationLog, RotatesByRenameWithoutLosingARecordForWhoReads) {
    NotificationLogWriter writer(folder_.path(), {.sizeLimit = 400});
    reader_.skipToEnd();
    std::uint64_t files = 0;
    ino_t last = 0;
    for (int i = 1; i <= 100; ++i) {
        writer.post({std::to_string(i), {}, std::string(60, 'x')});
        struct stat status {};
        ASSERT_EQ(stat(folder_.log().c_str(), &status), 0);
        EXPECT_LE(status.st_size, 400);
        if (status.st_ino != last) ++files;
        last = status.st_ino;
        EXPECT_EQ(readAll(reader_), " " + std::to_string(i));
    }
    EXPECT_GT(files, 20U);
    EXPECT_FALSE(std::filesystem::exists(folder_.path() + "/notifications.new"));
}

TEST_F(NotificationLog, AReaderThatCameTooLateIsToldHowManyItMissed) {
    NotificationLogWriter writer(folder_.path(), {.sizeLimit = 300});
    writer.post({"1", {}, std::string(60, 'x')});
    reader_.skipToEnd();
    for (int i = 2; i <= 12; ++i) writer.post({std::to_string(i), {}, std::string(60, 'x')});
    // Three records to a file: 1 to 3, 4 to 6, 7 to 9, 10 to 12.
    EXPECT_EQ(readAll(reader_), " 2 3 -6 10 11 12");
    EXPECT_EQ(reader_.position().next, 13U);
}

TEST_F(NotificationLog, KeepsItsIdAndNumbersOverARotationButNotOverADeletion) {
    NotificationLogWriter writer(folder_.path(), {.sizeLimit = 300});
    for (int i = 1; i <= 3; ++i) writer.post({"n", {}, std::string(60, 'x')});
    const auto before = okv::parseLogHeader(bytesOf(folder_.log()));
    writer.post({"n", {}, std::string(60, 'x')});
    const auto after = okv::parseLogHeader(bytesOf(folder_.log()));
    ASSERT_TRUE(before && after);
    EXPECT_EQ(after->id, before->id);
    EXPECT_EQ(after->first, 4U);
    std::filesystem::remove(folder_.log());
    writer.post({"n", {}, {}});
    const auto anew = okv::parseLogHeader(bytesOf(folder_.log()));
    ASSERT_TRUE(anew);
    EXPECT_NE(anew->id, before->id);
    EXPECT_EQ(anew->first, 1U);
}

TEST_F(NotificationLog, AReaderFollowsADeletedAndAReplacedLog) {
    writer_.post({"a", {}, {}});
    reader_.skipToEnd();
    writer_.post({"b", {}, {}});
    std::filesystem::remove(folder_.log());
    writer_.post({"c", {}, {}});
    EXPECT_EQ(readAll(reader_), " b c");
    const auto other = okv::encodeLogHeader({77, 5}) + record(5, {"d", {}, {}});
    support::write(folder_.path() + "/other", other);
    std::filesystem::rename(folder_.path() + "/other", folder_.log());
    EXPECT_EQ(readAll(reader_), " -4 d");
    writer_.post({"e", {}, {}});
    EXPECT_EQ(readAll(reader_), " e");
}

TEST_F(NotificationLog, AReaderFollowsALogThatIsEmptiedOrOverwrittenInItsPlace) {
    writer_.post({"a", {}, {}});
    reader_.skipToEnd();
    support::write(folder_.log(), "");
    EXPECT_EQ(readAll(reader_), "");
    writer_.post({"b", {}, {}});
    EXPECT_EQ(readAll(reader_), " b");
    support::write(folder_.log(), okv::encodeLogHeader({77, 1}) + record(1, {"c", {}, {}}));
    EXPECT_EQ(readAll(reader_), " c");
    NotificationLogWriter(folder_.path(), {}).post({"d", {}, {}});
    EXPECT_EQ(readAll(reader_), " d");
}

TEST_F(NotificationLog, ALogCutShorterGetsNewNumbersForWhatFollows) {
    for (int i = 0; i < 3; ++i) writer_.post({"old", {}, {}});
    const auto one = okv::kLogHeaderSize + record(1, {"old", {}, {}}).size();
    reader_.skipToEnd();
    ASSERT_EQ(truncate(folder_.log().c_str(), static_cast<off_t>(one)), 0);
    writer_.post({"a", {}, {}});  // it knows of the lost ones: a new log
    EXPECT_EQ(readAll(reader_), " a");
    for (int i = 0; i < 3; ++i) writer_.post({"old", {}, {}});
    reader_.skipToEnd();
    ASSERT_EQ(truncate(folder_.log().c_str(), static_cast<off_t>(one)), 0);
    EXPECT_EQ(readAll(reader_), "");
    NotificationLogWriter(folder_.path(), {}).post({"b", {}, {}});  // it cannot know
    EXPECT_EQ(readAll(reader_), " b");
}

TEST_F(NotificationLog, TheEndIsFoundWithoutMovingTheReader) {
    writer_.post({"a", {}, {}});
    reader_.skipToEnd();
    writer_.post({"b", {}, {}});
    EXPECT_EQ(reader_.end().next, 3U);
    EXPECT_EQ(reader_.position().next, 2U);
    std::filesystem::remove(folder_.log());
    writer_.post({"c", {}, {}});
    EXPECT_EQ(reader_.end().next, 2U);
    EXPECT_NE(reader_.end().log, reader_.position().log);
    EXPECT_EQ(readAll(reader_), " b c");
}

TEST_F(NotificationLog, TakesANoticeUpToTheLimitAndRefusesALargerOne) {
    const auto overhead = okv::encodeLogRecord({"n", {}, std::string(70000, 'x')}).size() - 70000;
    const auto most = okv::kNotificationAtMost + okv::kLogRecordHeaderSize - overhead;
    reader_.skipToEnd();
    writer_.post({"n", {}, std::string(most, 'x')});
    EXPECT_EQ(kindOfFailure(writer_, {"n", {}, std::string(most + 1, 'x')}),
              NotificationError::Kind::tooLarge);
    Value deep = okv::Array{};
    for (int i = 0; i < 100; ++i) deep = okv::Array{std::move(deep)};
    EXPECT_EQ(kindOfFailure(writer_, {"n", {}, deep}), NotificationError::Kind::tooLarge);
    EXPECT_EQ(readAll(reader_), " n");
}

TEST_F(NotificationLog, APostThatFindsNoRoomFailsAndLosesNothing) {
    writer_.post({"a", {}, {}});
    reader_.skipToEnd();
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const auto size = std::filesystem::file_size(folder_.log());
    const rlimit limit{static_cast<rlim_t>(size + 5000), before.rlim_max};
    const auto signal = std::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    const auto kind = kindOfFailure(writer_, {"large", {}, std::string(20000, 'x')});
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    std::signal(SIGXFSZ, signal);
    EXPECT_EQ(kind, NotificationError::Kind::failed);
    EXPECT_EQ(std::filesystem::file_size(folder_.log()), size);
    writer_.post({"b", {}, {}});
    EXPECT_EQ(readAll(reader_), " b");
}

TEST_F(NotificationLog, SaysWhatStandsInTheWayOfPosting) {
    folder_.remove();
    EXPECT_EQ(kindOfFailure(writer_, {"n", {}, {}}), NotificationError::Kind::failed);
    folder_.make();
    ASSERT_EQ(chmod(folder_.path().c_str(), 0777), 0);
    EXPECT_EQ(kindOfFailure(writer_, {"n", {}, {}}), NotificationError::Kind::refused);
    ASSERT_EQ(chmod(folder_.path().c_str(), 0755), 0);
    std::filesystem::create_symlink("/dev/null", folder_.log());
    EXPECT_EQ(kindOfFailure(writer_, {"n", {}, {}}), NotificationError::Kind::failed);
    std::filesystem::remove(folder_.log());
    ASSERT_EQ(mkfifo(folder_.log().c_str(), 0644), 0);
    EXPECT_EQ(kindOfFailure(writer_, {"n", {}, {}}), NotificationError::Kind::refused);
    reader_.skipToEnd();
    EXPECT_FALSE(reader_.isAtPath());
}

TEST_F(NotificationLog, ALinkInTheLocksPlaceIsNotFollowed) {
    const auto target = folder_.path() + "/target";
    std::filesystem::create_symlink(target, folder_.lock());
    EXPECT_EQ(kindOfFailure(writer_, {"n", {}, {}}), NotificationError::Kind::failed);
    EXPECT_FALSE(std::filesystem::exists(target));
}

TEST_F(NotificationLog, WhatLiesInANewLogsPlaceIsReplacedAndWhatItLeadsToLeftAlone) {
    const auto target = folder_.path() + "/target", made = folder_.path() + "/notifications.new";
    std::ofstream(target) << "kept";
    const auto isKept = [&] {
        return std::filesystem::file_size(target) == 4 &&
               std::filesystem::hard_link_count(target) == 1;
    };
    std::filesystem::create_symlink(target, made);
    writer_.post({"a", {}, {}});
    EXPECT_TRUE(isKept());
    std::filesystem::remove(folder_.log());
    std::filesystem::create_hard_link(target, made);
    writer_.post({"b", {}, {}});
    EXPECT_TRUE(isKept());
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(made)));
}

TEST_F(NotificationLog, ALockThatAnotherPosterMakesJustNowIsTakenAsItIs) {
    reader_.skipToEnd();
    beforeMaking = [&] { std::ofstream(folder_.lock()) << "another's"; };
    writer_.post({"a", {}, {}});
    EXPECT_FALSE(beforeMaking) << "nothing was made";
    EXPECT_EQ(std::filesystem::file_size(folder_.lock()), 9U);
    EXPECT_EQ(readAll(reader_), " a");
}

TEST_F(NotificationLog, APosterThatHoldsTheLockIsNotWaitedForForEver) {
    NotificationLogWriter writer(folder_.path(), {.lockWait = std::chrono::milliseconds(20)});
    writer.post({"a", {}, {}});
    const int lock = open(folder_.lock().c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    EXPECT_EQ(kindOfFailure(writer, {"b", {}, {}}), NotificationError::Kind::failed);
    close(lock);
    reader_.skipToEnd();
    writer.post({"c", {}, {}});
    EXPECT_EQ(readAll(reader_), " c");
}

TEST_F(NotificationLog, AReaderTakesNoLogFromAStrangersHand) {
    if (geteuid() != 0) GTEST_SKIP() << "needs an owner that is somebody else";
    writer_.post({"a", {}, {}});
    ASSERT_EQ(chown(folder_.log().c_str(), okv::kOverflowUid, okv::kOverflowUid), 0);
    reader_.skipToEnd();
    EXPECT_FALSE(reader_.isAtPath());
    EXPECT_EQ(reader_.position().log, 0U);
}

TEST_F(NotificationLog, SeveralPostersTakeTurns) {
    NotificationLogWriter other(folder_.path(), {.sizeLimit = 500});
    reader_.skipToEnd();
    for (int i = 0; i < 20; ++i) {
        writer_.post({"a", {}, {}});
        other.post({"b", {}, std::string(100, 'x')});
        EXPECT_EQ(readAll(reader_), " a b") << i;
    }
}

TEST_F(NotificationLog, ManyRecordsAreReadThroughSmallAndLargeReads) {
    reader_.skipToEnd();
    std::string expected;
    for (int i = 0; i < 60; ++i) {
        writer_.post({std::to_string(i), {}, std::string(static_cast<std::size_t>(i * 487), 'x')});
        expected += " " + std::to_string(i);
    }
    EXPECT_EQ(readAll(reader_), expected);
}
