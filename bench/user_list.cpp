// What reading one setting costs while there are few and many users: the rule is that every read
// asks for the list of users first. Beside it the least that the same bytes cost, in two round
// trips over a blocking Unix socket.

#include "Contest.h"
#include "OKVDataAdmin_protocol.h"

#include <OKVDataManager/okvDataManager.h>
#include <OKVPlatform/ipc/Connection.h>
#include <OKVPlatform/ipc/Frame.h>
#include <OKVPlatform/values/Cbor.h>
#include <OKVTesting/RuntimeFolder.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

constexpr char kKey[] = "dc-gui-window_colour";
constexpr std::size_t kAnswerSize = 32;
constexpr std::size_t kListRequestSize = 27;
constexpr std::size_t kReadRequestSize = 60;
constexpr std::size_t kReadReplySize = 43;

bool receiveAll(int socket, std::string& buffer, std::size_t size) {
    return recv(socket, buffer.data(), size, MSG_WAITALL) == static_cast<ssize_t>(size);
}

bool sendAll(int socket, const std::string& buffer, std::size_t size) {
    return send(socket, buffer.data(), size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

void answerBoth(int socket, std::size_t listSize) {
    std::string buffer(listSize + kReadRequestSize, 'l');
    while (receiveAll(socket, buffer, kListRequestSize) && sendAll(socket, buffer, listSize) &&
           receiveAll(socket, buffer, kReadRequestSize) &&
           sendAll(socket, buffer, kReadReplySize)) {
    }
}

class RawPeer {
public:
    explicit RawPeer(std::size_t listSize)
        : listSize_(listSize), buffer_(listSize + kReadRequestSize, 'r') {
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_) != 0) std::abort();
        server_ = std::make_unique<bench::ServerProcess>([&](const auto& ready) {
            close(ends_[0]);
            ready();
            answerBoth(ends_[1], listSize);
        });
        close(ends_[1]);
    }
    RawPeer(const RawPeer&) = delete;
    RawPeer& operator=(const RawPeer&) = delete;
    ~RawPeer() { close(ends_[0]); }

    void call() {
        if (!sendAll(ends_[0], buffer_, kListRequestSize) ||
            !receiveAll(ends_[0], buffer_, listSize_) ||
            !sendAll(ends_[0], buffer_, kReadRequestSize) ||
            !receiveAll(ends_[0], buffer_, kReadReplySize))
            std::abort();
    }

private:
    const std::size_t listSize_;
    std::string buffer_;
    int ends_[2];
    std::unique_ptr<bench::ServerProcess> server_;
};

okv::Array userIds(int count) {
    okv::Array ids;
    for (int id = 1; id <= count; ++id) ids.emplace_back(id);
    return ids;
}

void importUsers(okvDataManager& manager, int count) {
    okv::Dictionary users;
    users.reserve(static_cast<std::size_t>(count));
    for (int id = 1; id <= count; ++id) users.insert(std::to_string(id), okv::Dictionary{});
    users.set(
        "1", okv::Dictionary{{"settings", okv::Dictionary{{kKey, std::string(kAnswerSize, 'v')}}}});
    const okv::Dictionary store{{"format", 1}, {"users", std::move(users)}};
    const auto root = manager.proxyObj();
    if (!okv::send<&OKVDataAdmin_protocol::importDataPT>(*root, store) ||
        manager.userIdList() != okv::Value(userIds(count)))
        std::abort();
    manager.setNowSessionUserId(count);  // the last in the list: the whole of it is looked through
}

bench::Result measure(okvDataManager& manager, int count) {
    importUsers(manager, count);
    const auto list = okv::encodeCbor(userIds(count));
    RawPeer raw(list.size() + okv::kFrameHeaderSize);
    const auto results = bench::contest(
        {
            {"raw, the same bytes in two round trips", [&] { raw.call(); }},
            {"okvData:", [&] { manager.okvData(kKey); }},
            {"of it the list of users", [&] { manager.userIdList(); }},
            {"of it the list's decoding", [&] { okv::decodeCbor(list); }},
        },
        {21, count > 10000 ? 20 : 400});
    std::printf("%d users\n", count);
    bench::print(results);
    return results[1];
}

}  // namespace

int main() {
    const okv::testing::RuntimeFolder folder;
    bench::pinTo(0);
    const bench::ServerProcess server(
        {OKV_BENCH_SERVER, "--foreground", "--store", (folder.path() / "store.db").string()});
    const auto manager = okvDataManager::sharedDataManager();
    if (!manager) return 1;
    const auto few = measure(*manager, 10);
    measure(*manager, 1000);
    const auto many = measure(*manager, 100000);
    std::printf("\nokvData: costs %.1f ns more for each user\n",
                (many.medianNs - few.medianNs) / (100000 - 10));
}
