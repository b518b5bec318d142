#include "Limits.h"

#include <OKVPlatform/ipc/Frame.h>
#include <OKVPlatform/values/Cbor.h>

#include <sys/resource.h>

#include <algorithm>

namespace datacenter {

namespace {

// Kept from the clients, for the store, the notices and what else the server opens.
constexpr std::size_t kOwnDescriptors = 32;

std::size_t descriptorsForClients() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 1;
    return limit.rlim_cur > kOwnDescriptors ? limit.rlim_cur - kOwnDescriptors : 1;
}

// Around the value there are a few items of the reply itself.
static_assert(Limits().replyItems + 16 <= okv::kMaxItems);

std::int64_t wide(std::size_t number) {
    return static_cast<std::int64_t>(number);
}

std::vector<NamedLimit> limitsOfMessages(const Limits& limits) {
    return {
        {"frame_bytes", wide(okv::kMaxFramePayload)}, {"frame_nesting", wide(okv::kMaxValueDepth)},
        {"request_bytes", wide(limits.requestBytes)}, {"import_bytes", wide(limits.importBytes)},
        {"reply_bytes", wide(limits.replyBytes)},     {"reply_items", wide(limits.replyItems)},
        {"read_keys", wide(limits.readKeys)},         {"write_keys", wide(limits.writeKeys)}};
}

std::vector<NamedLimit> limitsOfTheStore(const Limits& limits) {
    return {{"key_bytes", wide(limits.keyBytes)},
            {"value_bytes", wide(limits.valueBytes)},
            {"list_bytes", wide(limits.listBytes)},
            {"nesting", wide(limits.nesting)},
            {"scope_keys", limits.scopeKeys},
            {"scope_bytes", limits.scopeBytes},
            {"users", limits.users},
            {"accounts", limits.accounts},
            {"locks", limits.locks},
            {"processes", limits.processes},
            {"process_bytes", limits.processBytes},
            {"changes_kept", limits.changesKept},
            {"keys_told", wide(limits.keysTold)},
            {"key_bytes_told", wide(limits.keyBytesTold)},
            {"store_pages", limits.storePages},
            {"grouped_requests", wide(limits.groupedRequests)},
            {"grouped_steps", wide(limits.groupedSteps)},
            {"queued_bytes", wide(limits.queuedBytes)},
            {"writer_stuck_seconds", limits.writerStuckAfter.count()}};
}

std::vector<NamedLimit> limitsOfConnections(const Limits& limits) {
    return {{"connections", wide(limits.connections)},
            {"connections_per_uid", wide(limits.connectionsPerUid)},
            {"kept_connections", wide(limits.keptConnections)},
            {"ungreeted", wide(limits.ungreeted)},
            {"greet_milliseconds", wide(limits.greetMilliseconds)},
            {"output_bytes", wide(limits.outputBytes)},
            {"pending_requests", wide(limits.pendingRequests)}};
}

}  // namespace

std::vector<NamedLimit> namedLimits(const Limits& limits) {
    auto all = limitsOfMessages(limits);
    for (const auto& more : {limitsOfTheStore(limits), limitsOfConnections(limits)})
        all.insert(all.end(), more.begin(), more.end());
    return all;
}

Limits affordable(Limits limits) {
    limits.connections = std::min(limits.connections, descriptorsForClients());
    limits.keptConnections = std::min(limits.keptConnections, limits.connections / 2);
    return limits;
}

}  // namespace datacenter
