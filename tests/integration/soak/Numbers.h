#pragma once

#include "Board.h"

#include "../faults/Support.h"

namespace soak {

using okv::Array;
using okv::Dictionary;
using okv::Value;
using Data = OKVDataMng_protocol;
using Admin = OKVDataAdmin_protocol;

/// An answer that must not come, whatever happened to the server.
struct WrongAnswer : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// A value that holds the number, and more or less text with it.
Value valueHolding(std::int64_t number);
/// The number in such a value, or the value as a number itself; 0 where there is none.
std::int64_t numberIn(const Value& value);

/// Stores the number in the register's place; false when it was refused.
bool write(okv::RemoteObject& root, const Register& place, std::int64_t number);
/// Throws WrongAnswer when several places that change together differ.
std::int64_t read(okv::RemoteObject& root, const Register& place);

/// Raises the register by one; throws when that is refused. `put` stores the number.
void raise(Register& place, const std::function<bool(std::int64_t)>& put);
void raise(okv::RemoteObject& root, Register& place);
/// Throws WrongAnswer when the number read is lower than what was acknowledged before, or higher
/// than what was tried.
void check(okv::RemoteObject& root, const Register& place);

}  // namespace soak
