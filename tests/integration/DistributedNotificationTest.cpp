#include <OKVPlatform/ipc/DistributedNotificationCenter.h>
#include <OKVPlatform/ipc/PeerIdentity.h>

#include <poll.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <random>

#include "support/NotificationTesting.h"
#include "support/Processes.h"
#include "support/Sanitizers.h"
#include "support/Serving.h"

using notification_test::Folder;
using notification_test::Listener;
using notification_test::numbersTo;
using okv::DistributedNotificationCenter;
using okv::Notification;
using okv::RunLoop;
using okv::Value;
using support::residentKilobytes;
using support::serveUntil;

namespace {

/// A process of its own, which tells lines; killed at the latest with its object.
class Process {
public:
    using Tell = std::function<void(const std::string&)>;

    explicit Process(const std::function<void(const Tell&)>& body) {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        pid_ = support::startChild([&] {
            close(ends[0]);
            body([&](const std::string& line) {
                if (write(ends[1], (line + "\n").data(), line.size() + 1) < 0) _exit(2);
            });
        });
        close(ends[1]);
        lines_ = ends[0];
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    ~Process() {
        if (pid_ > 0) kill(SIGKILL);
        close(lines_);
    }

    /// The next line, "" when there is none in good time or the process has ended.
    std::string line() {
        std::string line;
        pollfd entry{lines_, POLLIN, 0};
        for (char c = 0; poll(&entry, 1, 60000) == 1 && read(lines_, &c, 1) == 1 && c != '\n';)
            line.push_back(c);
        return line;
    }
    void stop() const {
        ::kill(pid_, SIGSTOP);
        int status = 0;
        waitpid(pid_, &status, WUNTRACED);
        EXPECT_TRUE(WIFSTOPPED(status));
    }
    void resume() const { ::kill(pid_, SIGCONT); }
    void kill(int signal) {
        ::kill(pid_, signal);
        waitpid(pid_, nullptr, 0);
        pid_ = 0;
    }
    pid_t pid() const { return pid_; }

private:
    pid_t pid_;
    int lines_ = -1;
};

void becomeNobody() {
    if (geteuid() != 0) return;
    if (setgid(okv::kOverflowUid) != 0 || setuid(okv::kOverflowUid) != 0) _exit(3);
}

/// A process that tells each number it hears, and what it missed.
std::function<void(const Process::Tell&)> observing(const Folder& folder, bool asNobody = false) {
    return [&folder, asNobody](const Process::Tell& tell) {
        if (asNobody) becomeNobody();
        DistributedNotificationCenter center(folder.path());
        const auto observer = okv::make<Listener>(center);
        observer->onNotice = [&](const Notification& notice) {
            tell(std::to_string(notice.userInfo.longLongValue()));
        };
        observer->observe("a");
        tell("ready");
        RunLoop::current()->run();
    };
}

class DistributedNotice : public testing::Test {
protected:
    Folder folder_;
    DistributedNotificationCenter center_{folder_.path(), {}};
};

}  // namespace

TEST_F(DistributedNotice, ReachesObserversInOtherProcessesInOrder) {
    Process first(observing(folder_));
    Process second(observing(folder_));
    ASSERT_EQ(first.line(), "ready");
    ASSERT_EQ(second.line(), "ready");
    for (int i = 1; i <= 50; ++i) center_.post("a", {}, i);
    for (int i = 1; i <= 50; ++i) {
        EXPECT_EQ(first.line(), std::to_string(i));
        EXPECT_EQ(second.line(), std::to_string(i));
    }
}

TEST_F(DistributedNotice, ReachesObserversOfAnotherAccountWhichMayNotPost) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to be two accounts";
    center_.post("a", {}, 0);
    Process observer(observing(folder_, true));
    ASSERT_EQ(observer.line(), "ready");
    center_.post("a", {}, 1);
    EXPECT_EQ(observer.line(), "1");
    Process poster([&](const Process::Tell& tell) {
        becomeNobody();
        try {
            DistributedNotificationCenter(folder_.path()).post("a", {}, 2);
            tell("posted");
        } catch (const okv::NotificationError& error) {
            tell(error.kind() == okv::NotificationError::Kind::refused ? error.what() : "other");
        }
    });
    EXPECT_EQ(poster.line(),
              "uid 65534 may not post notices: " + folder_.lock() + ": Permission denied");
    center_.post("a", {}, 3);
    EXPECT_EQ(observer.line(), "3");
}

TEST_F(DistributedNotice, ObserversThatStartBeforeTheFolderHearTheFirstNotice) {
    folder_.remove();
    Process observer(observing(folder_));
    ASSERT_EQ(observer.line(), "ready");
    folder_.make();
    center_.post("a", {}, 1);
    EXPECT_EQ(observer.line(), "1");
    folder_.remove();
    folder_.make();
    center_.post("a", {}, 2);
    EXPECT_EQ(observer.line(), "2");
}

TEST_F(DistributedNotice, AStoppedObserverBlocksNobodyAndIsToldWhatItMissed) {
    // The observer's patience goes on while it is stopped, and a sanitizer makes posting slow.
    constexpr int kPosts = support::kIsSanitized ? 20000 : 100000;
    Process observer([&](const Process::Tell& tell) {
        DistributedNotificationCenter center(folder_.path());
        const auto listener = okv::make<Listener>(center);
        listener->observe("a");
        tell("ready");
        const bool heard =
            serveUntil([&] { return !listener->numbers.empty() && listener->numbers.back() < 0; });
        const auto& numbers = listener->numbers;
        const bool ordered = heard && std::is_sorted(numbers.begin(), numbers.end() - 1);
        tell(ordered ? "in order" : "out of order");
        tell(std::to_string(numbers.size() + listener->missing));
        tell(listener->missing > 0 ? "missed some" : "missed none");
        pause();
    });
    ASSERT_EQ(observer.line(), "ready");
    observer.stop();
    center_.post("a", {}, 0);
    const auto before = residentKilobytes(observer.pid());
    const std::string padding(100, ' ');
    for (int i = 1; i < kPosts; ++i) center_.post("a", {}, std::to_string(i) + padding);
    std::uintmax_t bytes = 0;
    for (const auto& file : std::filesystem::directory_iterator(folder_.path()))
        bytes += file.file_size();
    EXPECT_LE(bytes, 1U << 20);
    EXPECT_LE(residentKilobytes(observer.pid()), before);
    observer.resume();
    center_.post("a", {}, -1);
    EXPECT_EQ(observer.line(), "in order");
    EXPECT_EQ(observer.line(), std::to_string(kPosts + 1));
    EXPECT_EQ(observer.line(), "missed some");
    EXPECT_LT(residentKilobytes(observer.pid()), before + 16 * 1024);
}

namespace {

constexpr std::int64_t kMostAttempts = 1 << 20;

// What posters that are killed leave behind for their judge.
struct Account {
    std::atomic<std::int64_t> attempted;
    std::atomic<std::uint8_t> acknowledged[kMostAttempts];
};

struct Unmap {
    void operator()(Account* account) const { munmap(account, sizeof *account); }
};

std::unique_ptr<Account, Unmap> sharedAccount() {
    void* memory = mmap(nullptr, sizeof(Account), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    return std::unique_ptr<Account, Unmap>(static_cast<Account*>(memory));
}

// Of many pages now and then: such a write can be cut in the middle by a kill.
std::string contentOf(std::int64_t number) {
    const auto size = number % 4 == 0 ? 60000 + number % 100000 : number % 300;
    std::string content(static_cast<std::size_t>(size), '\0');
    for (std::size_t i = 0; i < content.size(); ++i)
        content[i] = static_cast<char>(static_cast<std::size_t>(number) * 31 + i * 7);
    return content;
}

void postUntilKilled(const std::string& folder, std::size_t sizeLimit, Account& account) {
    DistributedNotificationCenter center(folder, {.sizeLimit = sizeLimit});
    for (;;) {
        const auto number = ++account.attempted;
        if (number >= kMostAttempts) _exit(4);
        center.post("a", {}, okv::Array{number, contentOf(number)});
        account.acknowledged[number] = 1;
    }
}

class KilledPosters : public DistributedNotice {
protected:
    void SetUp() override {
        observer_->onNotice = [this](const Notification& notice) {
            const auto* parts = notice.userInfo.getIf<okv::Array>();
            if (parts == nullptr) return;  // the mark below
            heard_.push_back((*parts)[0].longLongValue());
            if ((*parts)[1] != Value(contentOf(heard_.back()))) ++wrong_;
        };
        center_.post("a");  // the observer holds a log from the start: it can be one file behind
        observer_->observe("a");
    }
    /// A poster is killed at a random moment, then everything that it posted is read.
    void killOne(std::size_t sizeLimit, std::int64_t mark) {
        Process poster([&](const Process::Tell& tell) {
            tell("ready");
            postUntilKilled(folder_.path(), sizeLimit, *account_);
        });
        ASSERT_EQ(poster.line(), "ready");
        usleep(static_cast<useconds_t>(engine_() % 4000));  // the random moment
        poster.kill(SIGKILL);
        center_.post("a", {}, mark);
        const auto isMarked = [&] {
            return !observer_->numbers.empty() && observer_->numbers.back() == mark;
        };
        ASSERT_TRUE(serveUntil(isMarked)) << mark;
    }
    std::uint64_t acknowledgedButNotHeard() const {
        std::uint64_t count = 0;
        for (std::int64_t number = 1; number <= account_->attempted; ++number)
            if (account_->acknowledged[number] != 0)
                count += std::binary_search(heard_.begin(), heard_.end(), number) ? 0U : 1U;
        return count;
    }
    void expectWhatWasHeardInOrderAndRight() const {
        EXPECT_EQ(wrong_, 0);
        EXPECT_TRUE(std::is_sorted(heard_.begin(), heard_.end(), std::less_equal<>()));
        EXPECT_FALSE(heard_.empty()) << "nobody came to post: nothing was tested";
    }

    std::unique_ptr<Account, Unmap> account_ = sharedAccount();
    okv::Ref<Listener> observer_ = okv::make<Listener>(center_);
    std::mt19937 engine_{20240607};
    std::vector<std::int64_t> heard_;
    int wrong_ = 0;
};

}  // namespace

TEST_F(KilledPosters, LoseNothingThatWasAcknowledged) {
    // Only the marks rotate, once for each poster at most: no reader comes too late.
    for (int kills = 1; kills <= 200; ++kills) ASSERT_NO_FATAL_FAILURE(killOne(SIZE_MAX, kills));
    expectWhatWasHeardInOrderAndRight();
    EXPECT_EQ(observer_->missing, 0U);
    EXPECT_EQ(acknowledgedButNotHeard(), 0U);
}

TEST_F(KilledPosters, LeaveAWholeLogWhenTheyAreKilledWhileTheyRotate) {
    for (int kills = 1; kills <= 100; ++kills)
        ASSERT_NO_FATAL_FAILURE(killOne(200000, kills));  // every other notice or so rotates
    expectWhatWasHeardInOrderAndRight();
    EXPECT_LE(acknowledgedButNotHeard(), observer_->missing);
}

TEST_F(DistributedNotice, RotationUnderReadersLosesNothing) {
    Process first(observing(folder_));
    Process second(observing(folder_));
    ASSERT_EQ(first.line(), "ready");
    ASSERT_EQ(second.line(), "ready");
    DistributedNotificationCenter small(folder_.path(), {.sizeLimit = 2000});
    for (int i = 1; i <= 2000; ++i) {
        small.post("a", {}, i);
        // Both in step with it: a reader may be one file behind, not two.
        if (i % 10 != 0) continue;
        for (int heard = i - 9; heard <= i; ++heard) {
            ASSERT_EQ(first.line(), std::to_string(heard));
            ASSERT_EQ(second.line(), std::to_string(heard));
        }
    }
}

namespace {

// Takes all that the account may have. Root becomes an account that nobody else is, so that other
// processes keep theirs.
std::vector<int> takeEveryInotifyInstance() {
    const auto nobodyElse = static_cast<uid_t>(1000000 + getpid());
    if (geteuid() == 0 && setuid(nobodyElse) != 0) _exit(3);
    std::vector<int> taken;
    for (int fd = inotify_init(); fd >= 0; fd = inotify_init()) taken.push_back(fd);
    return taken;
}

std::size_t inotifyInstances() {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        count += std::filesystem::read_symlink(entry, gone) == "anon_inode:inotify" ? 1U : 0U;
    }
    return count;
}

void observeWithoutInotify(const Folder& folder, const Process::Tell& tell) {
    const auto taken = takeEveryInotifyInstance();
    DistributedNotificationCenter center(folder.path());
    const auto observer = okv::make<Listener>(center);
    observer->observe("a");
    tell("ready");
    const bool heard = serveUntil([&] { return observer->numbers.size() == 1; });
    tell(!heard ? "deaf" : inotifyInstances() == taken.size() ? "looking" : "watching");
    for (const int fd : taken) close(fd);
    tell(serveUntil([&] { return inotifyInstances() == 1; }) ? "watching" : "looking");
    serveUntil([&] { return observer->numbers.size() == 2; });
    tell(observer->numbers == numbersTo(2) ? "heard" : "deaf");
}

}  // namespace

TEST_F(DistributedNotice, WithoutAnInotifyInstanceTheLoopLooksOnceASecondUntilItCanWatch) {
    center_.post("a", {}, 0);
    Process observer([&](const Process::Tell& tell) { observeWithoutInotify(folder_, tell); });
    ASSERT_EQ(observer.line(), "ready");
    center_.post("a", {}, 1);
    EXPECT_EQ(observer.line(), "looking");
    EXPECT_EQ(observer.line(), "watching");
    center_.post("a", {}, 2);
    EXPECT_EQ(observer.line(), "heard");
}

TEST_F(DistributedNotice, TheDefaultCenterIsTheRuntimeFolders) {
    Process observer([&](const Process::Tell& tell) {
        setenv("OKV_RUNTIME_DIR", folder_.path().c_str(), 1);
        auto& center = DistributedNotificationCenter::defaultCenter();
        const auto listener = okv::make<Listener>(center);
        listener->observe("a");
        tell("ready");
        tell(serveUntil([&] { return listener->numbers == numbersTo(1); }) ? "heard" : "deaf");
    });
    ASSERT_EQ(observer.line(), "ready");
    center_.post("a", {}, 1);
    EXPECT_EQ(observer.line(), "heard");
}
