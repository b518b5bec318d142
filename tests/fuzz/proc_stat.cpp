// What the kernel and strangers write about a process: the status file, the command line, a path.

#include "Require.h"

#include <OKVPlatform/process/ProcessStatus.h>
#include <OKVPlatform/system/Bundle.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

using fuzz::require;

static void readStatus(std::string_view text) {
    const auto status = okv::parseProcessStatus(text);
    if (!status) return;
    require(std::memchr(status->record.command, '\0', sizeof status->record.command) != nullptr);
    // What stands behind the last line that counts changes nothing.
    std::string longer(text);
    longer += "\nPid:\tx\n";
    require(okv::parseProcessStatus(longer).has_value());
}

static void readPath(std::string_view text) {
    const auto argument = okv::absoluteFirstArgument(text);
    require(argument.empty() || argument.front() == '/');
    require(argument.find('\0') == std::string_view::npos);
    const auto bundle = okv::bundlePathOf(text);
    require(text.starts_with(bundle));
    require(bundle.empty() || (bundle.ends_with(".app") && !bundle.ends_with("/.app")));
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    readStatus(text);
    readPath(text);
    return 0;
}
