// What reading one setting costs while there are few and many users: the rule is that every read
// asks for the list of users first. Beside it the least that the same bytes cost, in two round
// trips over a blocking Unix socket.

#include "Contest.h"
#include "FrameSizes.h"
#include "OKVDataAdmin_protocol.h"
#include "Raw.h"

#include <OKVDataManager/okvDataManager.h>
#include <OKVPlatform/ipc/Connection.h>
#include <OKVPlatform/values/Cbor.h>
#include <OKVTesting/RuntimeFolder.h>

#include <cstdio>
#include <cstdlib>

namespace {

constexpr char kKey[] = "dc-gui-window_colour";
constexpr std::size_t kAnswerSize = 32;

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
    bench::RawPeer raw({{bench::requestSize<&OKVDataMng_protocol::useridAppListPT>(),
                         bench::replySize(userIds(count))},
                        {bench::requestSize<&OKVDataMng_protocol::okvDataPT_appUid>(kKey, count),
                         bench::replySize(std::string(kAnswerSize, 'v'))}});
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
