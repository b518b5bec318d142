#pragma once

#include "Support.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace dmtest {

/// An answer that a server must give for an operation to have the result that the table tells.
struct GivenAnswer {
    std::string selector;
    Value value;
};

/// One row: an operation, what it sends in which order, and what becomes of the answers.
struct Operation {
    std::string name;
    std::function<Value(okvDataManager&)> call;  ///< a result that is none (void) reads nil
    Messages messages;
    std::vector<GivenAnswer> answers;
    Value result;
    /// Without a proxy; none where it is the local clock's.
    std::optional<Value> zero;
    /// Whether it makes sure of the session user first, which becomes 0 without a proxy.
    bool readsForSessionUser = false;
};

/// The server that the table is run against. It knows the users 3 and 7, and 3 is its default user.
class OperationServer {
public:
    virtual ~OperationServer() = default;
    /// Brings the server to where it gives the row's answers; NO when it cannot be brought there,
    /// and the row's result does not apply.
    virtual bool prepare(const Operation& operation) = 0;
    /// Forgets what was sent so far; then, after the call, looks at what was sent. A server that
    /// keeps no record does nothing.
    virtual void beginRecord() {}
    virtual void checkRecord(const Operation&) {}
};

/// The session user of every row.
inline constexpr std::int32_t kSessionUser = 7;

/// Makes kSessionUser the session user, then carries the row out against the server.
void runOperation(okvDataManager& manager, OperationServer& server, const Operation& operation);

const std::vector<Operation>& allOperations();

using OperationCall = std::function<Value(okvDataManager&)>;
/// A row whose result is the server's answer to its only message.
Operation forwarding(std::string name, OperationCall call, ReceivedMessage message, Value answer,
                     Value zero);
/// The same for the session user: the user list is asked for first.
Operation sessionRead(std::string name, OperationCall call, ReceivedMessage message, Value answer,
                      Value zero);
/// A row that sends nothing and answers by itself.
Operation silent(std::string name, OperationCall call, Value result);

// The families of rows that allOperations joins.
std::vector<Operation> currentUserOperations();
std::vector<Operation> userListOperations();
std::vector<Operation> membershipOperations();
std::vector<Operation> sessionOperations();
std::vector<Operation> clockOperations();
std::vector<Operation> readingOperations();
std::vector<Operation> writingOperations();
std::vector<Operation> writingForAccountOperations();
std::vector<Operation> writingAllOperations();
std::vector<Operation> writingHardlyAnythingOperations();
std::vector<Operation> switchOperations();
std::vector<Operation> listOperations();
std::vector<Operation> processListOperations();
std::vector<Operation> endpointOperations();

inline void PrintTo(const Operation& operation, std::ostream* out) {
    *out << operation.name;
}

}  // namespace dmtest
