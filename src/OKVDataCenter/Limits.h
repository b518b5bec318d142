#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace datacenter {

/// Every bound that the server sets to what it takes, keeps and gives back. Tests open stores with
/// smaller ones. A bound that is added here is told by `namedLimits` and in docs/limits.md, too.
struct Limits {
    std::size_t requestBytes = 1U << 20;                ///< the payload of a request
    std::size_t importBytes = 16U << 20;                ///< the payload of an import
    std::size_t replyBytes = (16U << 20) - (1U << 16);  ///< what goes into one reply; the rest of a
                                                        ///< frame is left to its bookkeeping
    std::size_t replyItems = (1U << 20) - 16;  ///< that the value in a reply consists of; the
                                               ///< rest of what a reader takes is left, too
    std::size_t readKeys = 10000;              ///< keys that one read may name
    std::size_t writeKeys = 20000;             ///< keys or names that one change may name:
                                               ///< all of a scope, exchanged for others
    std::size_t keyBytes = 255;
    std::size_t valueBytes = 256U << 10;  ///< one value, encoded
    std::size_t listBytes = 1U << 20;     ///< one of a user's four lists, encoded
    std::size_t nesting = 60;  ///< containers in a value: the wire carries 64, and an export puts
                               ///< values up to four containers deep
    std::int64_t scopeKeys = 10000;      ///< keys of everybody, or of one user
    std::int64_t scopeBytes = 16 << 20;  ///< keys, values and lists of one scope
    std::int64_t users = 100000;
    std::int64_t accounts = 100000;
    std::int64_t locks = 10000;
    std::int64_t processes = 10000;       ///< names in one process list
    std::int64_t processBytes = 8 << 20;  ///< names and identifiers of one process list
    std::int64_t changesKept = 10000;     ///< changes that can be asked for by revision
    std::size_t keysTold = 256;           ///< keys that a change tells by name; more: none at all
    std::size_t keyBytesTold = 8192;
    std::int64_t storePages = 1 << 20;    ///< of 4 KiB each
    std::size_t groupedRequests = 256;    ///< requests in one transaction
    std::size_t groupedSteps = 4000;      ///< with so many, a transaction takes no further request
    std::size_t queuedBytes = 64U << 20;  ///< requests waiting for the writer
    std::size_t connections = 1024;
    std::size_t connectionsPerUid = 128;   ///< not of uid 0 and the server's own
    std::size_t keptConnections = 64;      ///< of all, for uid 0 and the server's own alone
    std::size_t ungreeted = 32;            ///< connections that have not said a word yet
    std::size_t greetMilliseconds = 2000;  ///< within which they must
    std::size_t outputBytes = 4U << 20;    ///< that a client leaves unread; one reply may exceed it
    std::size_t pendingRequests = 64;      ///< of one client, not yet answered
    /// At one piece of work for longer, the writer is stuck. A disk that ever answers again has
    /// done so: the kernel's own time-outs and repetitions end before.
    std::chrono::seconds writerStuckAfter{300};
};

/// A limit by the name under which the status and docs/limits.md tell it.
struct NamedLimit {
    const char* name;
    std::int64_t value;
};
std::vector<NamedLimit> namedLimits(const Limits& limits);

/// The limits that this process can keep: no more connections than it has descriptors for.
Limits affordable(Limits limits);

}  // namespace datacenter
