#pragma once

#include "Table.h"
#include "Verb.h"

// How verbs print their results, in the format that was asked for.
namespace okvctl {

// What verbs can print: a table, one value or several, a word of what was done.
inline constexpr unsigned kTableFormats = kTable | kJson | kPlist;
inline constexpr unsigned kValueFormats = kTableFormats | kRaw;
inline constexpr unsigned kConfirmFormats = kJson | kPlist;

/// Refuses a --format that the verb has no result in. To be called before the server is asked.
/// Throws ToolError (usage).
void expectFormats(const Call& call, unsigned formats);

/// Prints the table, or the whole as a document.
void print(Call& call, const okv::Value& whole, const Table& table);
/// Prints a value alone, or the whole as a document, or a table of the one value.
void printValue(Call& call, const okv::Value& whole, std::string_view name,
                const okv::Value& value);
/// Prints {word: what} as a document where one was asked for, else nothing.
void confirm(Call& call, std::string_view word, okv::Value what);

/// "KEY TYPE VALUE", to be filled by `addValue`.
Table valueTable();
void addValue(Table& table, const okv::Value& key, const okv::Value& value);

}  // namespace okvctl
