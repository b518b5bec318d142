#include "Support.h"

#include <OKVPlatform/ipc/RegisteredName.h>
#include <OKVTesting/RuntimeFolder.h>

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

using namespace faults;
using okv::PublishedName;

namespace {

constexpr char kName[] = "jp.nrm.test.raced";
constexpr int kPublishers = 8;

/// What all processes of a race share: the holder's word that it holds the name, beside whatever
/// the name's own lock says.
struct Board {
    std::atomic<pid_t> holder{0};
    std::atomic<long> held{0};        ///< rounds in which somebody had the name
    std::atomic<long> twoHolders{0};  ///< somebody else alive held it meanwhile
    std::atomic<long> strayed{0};     ///< the name led to somebody else
};

// Whether the process still holds what it held. One that is exiting gives its descriptors back
// before it is a zombie, but after the kernel has marked it.
bool isAlive(pid_t process) {
    constexpr unsigned long exiting = 0x4;  // PF_EXITING
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::string line;
    if (!std::getline(file, line)) return false;
    std::istringstream fields(line.substr(line.rfind(')') + 1));
    std::string state, skipped;
    unsigned long flags = 0;
    fields >> state;
    for (int i = 0; i < 5; ++i) fields >> skipped;
    fields >> flags;
    return !fields.fail() && state != "Z" && state != "X" && (flags & exiting) == 0;
}

void enter(Board& board) {
    for (pid_t other = 0; !board.holder.compare_exchange_strong(other, getpid());) {
        if (other != 0 && isAlive(other) && board.holder == other) {
            ++board.twoHolders;
            return;
        }
        // The word of one that was killed; and whoever saw it first may have taken it away.
        if (other != 0) board.holder.compare_exchange_strong(other, 0);
        other = 0;
    }
}

void leave(Board& board) {
    auto self = getpid();
    board.holder.compare_exchange_strong(self, 0);
}

void holdOnce(Board& board, const PublishedName::Options& options) {
    std::string why;
    const auto name = PublishedName::publish(kName, options, why);
    if (!name) return;
    enter(board);
    if (okv::connectToName(kName, options.subfolder).peer.pid != getpid()) ++board.strayed;
    ++board.held;
    leave(board);
}

class Race {
public:
    explicit Race(PublishedName::Options options)
        : board_(new (mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE,
                           MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Board),
          options_(std::move(options)) {
        for (auto& publisher : publishers_) publisher = launch();
    }
    ~Race() {
        for (const auto publisher : publishers_) end(publisher);
        munmap(board_, sizeof(Board));
    }
    Race(const Race&) = delete;
    Race& operator=(const Race&) = delete;

    const Board& board() const { return *board_; }
    /// Kills the one that holds the name just now, or else any one, and starts another.
    void killOne() {
        const auto holder = board_->holder.load();
        auto found = std::find(publishers_.begin(), publishers_.end(), holder);
        if (found == publishers_.end()) found = publishers_.begin() + kills_ % kPublishers;
        end(*found);
        *found = launch();
        ++kills_;
    }
    /// Until it is so; false when that takes too long.
    template <class Condition>
    bool await(Condition holds) const {
        const auto deadline = Clock::now() + std::chrono::seconds(30);
        while (!holds(*board_) && Clock::now() < deadline) std::this_thread::yield();
        return holds(*board_);
    }
    bool awaitHeld(long count) const {
        return await([count](const Board& board) { return board.held >= count; });
    }
    int kills() const { return kills_; }

private:
    pid_t launch() const {
        const auto pid = fork();
        if (pid != 0) return pid;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (;;) holdOnce(*board_, options_);
    }
    static void end(pid_t publisher) {
        kill(publisher, SIGKILL);
        waitpid(publisher, nullptr, 0);
    }

    Board* const board_;
    const PublishedName::Options options_;
    std::array<pid_t, kPublishers> publishers_{};
    int kills_ = 0;
};

std::vector<std::string> filesIn(const std::filesystem::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace

TEST(ARacedName, NeverHasTwoHoldersWhoeverIsKilled) {
    const okv::testing::RuntimeFolder folder;
    constexpr long kRounds = rounds(10000), kRoundsPerKill = 50;
    {
        Race race({});
        for (long next = kRoundsPerKill; next <= kRounds; next += kRoundsPerKill) {
            ASSERT_TRUE(race.awaitHeld(next));
            race.killOne();
        }
        EXPECT_EQ(race.board().twoHolders, 0);
        EXPECT_EQ(race.board().strayed, 0);
        EXPECT_GE(race.kills(), kRounds / kRoundsPerKill);
    }
    std::string why;
    EXPECT_TRUE(PublishedName::publish(kName, {}, why)) << why;
    const std::string lock = std::string(kName) + ".lock";
    EXPECT_EQ(filesIn(folder.path()), std::vector<std::string>{lock})
        << "what the killed ones left";
}

// A name of a single process is not locked: the same race finds two holders at once.
TEST(ARacedName, ThatIsNotLockedHasTwoHolders) {
    const okv::testing::RuntimeFolder folder;
    std::filesystem::create_directory(folder.path() / "apps");
    PublishedName::Options options;
    options.subfolder = "apps";
    const Race race(options);
    EXPECT_TRUE(race.await([](const Board& board) { return board.twoHolders > 0; }));
    EXPECT_TRUE(race.await([](const Board& board) { return board.strayed > 0; }));
}
