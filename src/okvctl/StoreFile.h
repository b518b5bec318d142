#pragma once

#include "CommandLine.h"
#include "JsonForm.h"

#include <OKVPlatform/values/Value.h>

#include <cstddef>
#include <string>
#include <string_view>

// The file that holds a whole store, as export writes and import reads it.
namespace okvctl {

/// The longest file that is read, in bytes: what the data server takes at once is a quarter of it,
/// in a form that is denser than texts.
inline constexpr std::size_t kStoreFileAtMost = 64U << 20;

/// Whether the file is a property list by its name.
bool isPropertyListName(std::string_view path);

/// Reads JSON, or a property list in its XML or binary form, as the first bytes tell.
ParsedValue parseStore(std::string_view bytes);

/// The text of a whole store. Throws ToolError where a property list has no form for something.
std::string storeText(const okv::Value& store, Format format);

/// The file's bytes, or for "-" those of the standard input. Throws ToolError.
std::string readStoreFile(const std::string& path);
/// Puts the text in the file's place in one step: whoever reads it sees the old file or the new
/// one. What is no regular file (a device, a pipe) is written to. Throws ToolError.
void writeStoreFile(const std::string& path, std::string_view text);

/// All of the standard input. Throws ToolError where it is longer, or cannot be read.
std::string readStandardInput(std::size_t atMost);

}  // namespace okvctl
