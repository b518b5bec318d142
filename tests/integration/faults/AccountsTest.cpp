#include "Support.h"

#include "support/Sockets.h"

#include <OKVPlatform/ipc/RegisteredName.h>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>

using namespace faults;

namespace {

constexpr uid_t kNobody = 65534;
constexpr uid_t kSomebody = 12345;
constexpr uid_t kSomebodyElse = 12346;

std::string makeFolderOf(uid_t uid, const std::string& path) {
    std::filesystem::create_directory(path);
    EXPECT_EQ(chown(path.c_str(), uid, uid), 0);
    return path;
}

/// The real server, run by another account, with a folder of that account's own.
class ForeignServer {
public:
    ForeignServer(uid_t uid, const std::string& folder, int listener = -1) {
        makeFolderOf(uid, folder);
        runtimeFolder_ = folder + "/run";
        int output[2];
        if (pipe(output) != 0) throw std::runtime_error("no pipe");
        pid_ = support::startChild([&] { serve(uid, folder, output[1], listener); });
        close(output[1]);
        char text[6] = {};
        isReady_ = read(output[0], text, sizeof text) == 6;
        close(output[0]);
    }
    ForeignServer(const ForeignServer&) = delete;
    ForeignServer& operator=(const ForeignServer&) = delete;
    ~ForeignServer() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    bool isReady() const { return isReady_; }
    const std::string& runtimeFolder() const { return runtimeFolder_; }

private:
    [[noreturn]] void serve(uid_t uid, const std::string& folder, int output, int listener) {
        if (!support::becomeAccount(uid)) _exit(126);
        dup2(output, STDOUT_FILENO);
        if (listener >= 0) {
            dup2(listener, 3);
            setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
            setenv("LISTEN_FDS", "1", 1);
        }
        const auto store = folder + "/store.db";
        execl(OKV_DATA_CENTER, OKV_DATA_CENTER, "--store", store.c_str(), "--runtime-dir",
              runtimeFolder_.c_str(), "--foreground", nullptr);
        _exit(127);
    }

    std::string runtimeFolder_;
    pid_t pid_ = -1;
    bool isReady_ = false;
};

/// A message of one byte that carries one descriptor.
class DescriptorMessage {
public:
    DescriptorMessage() {
        message_.msg_iov = &text_;
        message_.msg_iovlen = 1;
        message_.msg_control = control_;
        message_.msg_controllen = sizeof control_;
    }
    DescriptorMessage(const DescriptorMessage&) = delete;
    DescriptorMessage& operator=(const DescriptorMessage&) = delete;

    bool send(int socket, int descriptor) {
        auto* header = CMSG_FIRSTHDR(&message_);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof descriptor);
        std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
        return sendmsg(socket, &message_, 0) == 1;
    }
    /// The descriptor; -1 when none came.
    int receive(int socket) {
        int descriptor = -1;
        if (recvmsg(socket, &message_, 0) != 1) return descriptor;
        if (const auto* header = CMSG_FIRSTHDR(&message_); header != nullptr)
            std::memcpy(&descriptor, CMSG_DATA(header), sizeof descriptor);
        return descriptor;
    }

private:
    char byte_ = 0;
    iovec text_{&byte_, 1};
    alignas(cmsghdr) char control_[CMSG_SPACE(sizeof(int))] = {};
    msghdr message_{};
};

void listenAndHandOver(uid_t uid, const std::string& path, int receiver) {
    const int made = support::becomeAccount(uid) ? socket(AF_UNIX, SOCK_STREAM, 0) : -1;
    if (!support::bindTo(path, made) || chmod(path.c_str(), 0666) != 0 || listen(made, 8) != 0 ||
        !DescriptorMessage().send(receiver, made))
        throw std::runtime_error("no listener at " + path);
}

// A listening socket at the data server's name, made in a process of another account and handed
// over by it, which then ends.
int listenerMadeBy(uid_t uid, const std::string& folder) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) return -1;
    const auto maker = support::startChild(
        [&] { listenAndHandOver(uid, folder + "/" + kOKVDataServerName, pair[0]); });
    close(pair[0]);
    const int received = DescriptorMessage().receive(pair[1]);
    close(pair[1]);
    waitpid(maker, nullptr, 0);
    return received;
}

// Whether a client of the account is refused to talk to the server at the name, and why.
bool isRefusedFor(uid_t client, uid_t server) {
    const auto told = "served by uid " + std::to_string(server) + ", which is not trusted";
    return asAccount(client, [&] {
               std::string why;
               const auto none = okv::Connection::connectionWithRegisteredName(kOKVDataServerName,
                                                                               std::nullopt, &why);
               const auto looked = okv::connectToName(kOKVDataServerName);
               return !none && why == told && looked.refusedPeer && looked.why == told ? 0 : 1;
           }) == 0;
}

int codeOfGetBy(uid_t client) {
    return asAccount(client,
                     [] { return okv::send<&Data::defaultUserIdPT>(*connect()) == 1 ? 0 : 1; });
}

class Accounts : public testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "only root can be another account";
        if (asAccount(kSomebody, [] { return access(OKV_DATA_CENTER, X_OK); }) != 0)
            GTEST_SKIP() << "other accounts cannot run what was built here";
    }
    ServerProcess server_;
};

}  // namespace

TEST_F(Accounts, AServerOfNobodyIsRefusedByEveryClientAndToldAbout) {
    const ForeignServer foreign(kNobody, server_.file("nobodys"));
    ASSERT_TRUE(foreign.isReady());
    const Environment folder("OKV_RUNTIME_DIR", foreign.runtimeFolder());
    EXPECT_TRUE(isRefusedFor(kSomebody, kNobody));
    EXPECT_TRUE(isRefusedFor(0, kNobody));
    EXPECT_TRUE(isRefusedFor(kNobody, kNobody)) << "65534 stands for no account";
}

TEST_F(Accounts, AServerOfAnotherAccountIsRefusedAndOnesOwnIsNot) {
    const ForeignServer foreign(kSomebody, server_.file("somebodys"));
    ASSERT_TRUE(foreign.isReady());
    const Environment folder("OKV_RUNTIME_DIR", foreign.runtimeFolder());
    EXPECT_TRUE(isRefusedFor(kSomebodyElse, kSomebody));
    EXPECT_TRUE(isRefusedFor(0, kSomebody));
    EXPECT_EQ(codeOfGetBy(kSomebody), 0);
}

TEST_F(Accounts, ASocketMadeByAnotherIsWhoseWhoServesIt) {
    std::filesystem::create_directory(server_.runtimeFolder());
    std::filesystem::permissions(server_.runtimeFolder(), std::filesystem::perms(01777));
    const int listener = listenerMadeBy(kNobody, server_.runtimeFolder());
    ASSERT_GE(listener, 0);
    EXPECT_TRUE(isRefusedFor(kSomebody, kNobody)) << "nobody serves it yet but its maker's word";
    // A server takes no socket in a folder that others may write.
    std::filesystem::permissions(server_.runtimeFolder(), std::filesystem::perms(0755));
    ASSERT_TRUE(server_.startWithSocket(listener));
    close(listener);
    EXPECT_EQ(codeOfGetBy(kSomebody), 0);
    EXPECT_EQ(okv::connectToName(kOKVDataServerName).peer.pid, server_.pid());
    EXPECT_EQ(okv::connectToName(kOKVDataServerName).peer.uid, 0U);
}

TEST_F(Accounts, ASocketMadeByRootThatAnotherServesIsNotRoots) {
    const auto somebodys = server_.file("somebodys");
    makeFolderOf(kSomebody, somebodys);
    makeFolderOf(kSomebody, somebodys + "/run");
    const int listener = listenerMadeBy(0, somebodys + "/run");
    ASSERT_GE(listener, 0);
    const ForeignServer foreign(kSomebody, somebodys, listener);
    close(listener);
    ASSERT_TRUE(foreign.isReady());
    const Environment folder("OKV_RUNTIME_DIR", foreign.runtimeFolder());
    EXPECT_TRUE(isRefusedFor(kSomebodyElse, kSomebody));
}
