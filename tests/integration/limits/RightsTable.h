#pragma once

#include "../faults/Support.h"

#include <string>
#include <vector>

namespace limits_test {

using faults::Admin;
using faults::Data;
using okv::Value;

/// An account with the application user 2, and another one with the user 3.
inline constexpr std::int32_t kAccount = 23456;
inline constexpr std::int32_t kOwnUser = 2;
inline constexpr std::int32_t kOtherAccount = 23457;
inline constexpr std::int32_t kOtherUser = 3;
/// A key that everybody and both users have, and one of the same length that nobody has.
inline constexpr char kKey[] = "dc-rights-there";
inline constexpr char kMissingKey[] = "dc-rights-none!";

/// Who may send a method, as the server's contract sorts them.
enum class Class { read, own, administer };

/// One method of one of the two protocols, with arguments that it accepts.
struct Row {
    const char* selector;
    Class grantedTo;
    okv::Array arguments;
};

/// Every method of both protocols, in an order in which each can be carried out: what takes
/// something away comes last, the end of the server at the very end.
const std::vector<Row>& rightsTable();

/// The frame of the request, and the payload of its reply. Throws where it is not understood.
std::string requestFor(const Row& row);
std::string replyTo(okv::RemoteObject& root, const Row& row);
std::optional<okv::Refusal> refusalIn(const std::string& reply);

/// Gives both accounts their users, and everybody and both users the key. Acts as root.
void furnish();

}  // namespace limits_test
