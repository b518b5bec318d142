#include "Terminal.h"

#include <unistd.h>

#include <cstdlib>

namespace okvctl {

namespace {

std::string_view environment(const char* name) {
    const auto* const value = std::getenv(name);
    return value != nullptr ? value : "";
}

std::string_view codeOf(Style style) {
    constexpr std::string_view codes[] = {"", "1", "32", "33", "31"};
    return codes[static_cast<std::size_t>(style)];
}

}  // namespace

std::string styled(std::string_view text, Style style) {
    if (style == Style::plain) return std::string(text);
    return "\x1B[" + std::string(codeOf(style)) + "m" + std::string(text) + "\x1B[0m";
}

bool wantsColours(int descriptor) {
    const auto terminal = environment("TERM");
    return environment("NO_COLOR").empty() && !terminal.empty() && terminal != "dumb" &&
           isatty(descriptor) != 0;
}

}  // namespace okvctl
