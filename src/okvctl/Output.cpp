#include "Output.h"

#include "JsonForm.h"
#include "ToolError.h"
#include "ValueText.h"

#include <OKVPlatform/values/Unicode.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace okvctl {

namespace {

// Characters, not columns of a terminal: what scripts can count on.
std::size_t widthOf(std::string_view cell) {
    const auto isFirst = [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U; };
    return static_cast<std::size_t>(std::count_if(cell.begin(), cell.end(), isFirst));
}

std::vector<std::size_t> widthsOf(const std::vector<std::vector<std::string>>& rows) {
    std::vector<std::size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], widthOf(row[i]));
    }
    return widths;
}

bool isSafeOnTerminal(std::string text) {
    std::erase(text, '\n');
    std::erase(text, '\t');
    return isPrintable(text);
}

}  // namespace

void Output::json(const okv::Value& value) {
    line(jsonText(value));
}

void Output::table(const std::vector<std::vector<std::string>>& rows) {
    const auto widths = widthsOf(rows);
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            text_.append(row[i]);
            if (i + 1 < row.size()) text_.append(widths[i] - widthOf(row[i]) + 2, ' ');
        }
        text_.append("\n");
    }
}

void Output::value(const okv::Value& value) {
    const auto* text = value.getIf<std::string>();
    const bool asItIs = text != nullptr && (isatty(descriptor_) == 0 || isSafeOnTerminal(*text));
    line(asItIs ? *text : cellText(value));
}

void Output::flush() {
    std::string_view left = text_;
    while (!left.empty() && !broken_) {
        const auto written = write(descriptor_, left.data(), left.size());
        if (written >= 0) {
            left.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno == EPIPE) {
            broken_ = true;
        } else if (errno != EINTR) {
            text_.clear();
            throw ToolError(ExitCode::failure,
                            std::string("the output cannot be written: ") + std::strerror(errno));
        }
    }
    text_.clear();
}

}  // namespace okvctl
