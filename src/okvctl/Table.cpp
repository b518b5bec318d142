#include "Table.h"

#include <OKVPlatform/values/Unicode.h>

#include <algorithm>

namespace okvctl {

namespace {

constexpr std::size_t kGap = 2;

// Characters, not columns of a terminal: what scripts can count on.
std::size_t widthOf(std::string_view cell) {
    const auto isFirst = [](char byte) { return !okv::isUtf8Continuation(byte); };
    return static_cast<std::size_t>(std::count_if(cell.begin(), cell.end(), isFirst));
}

void widen(std::vector<std::size_t>& widths, const Table::Row& row) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i)
        widths[i] = std::max(widths[i], widthOf(row[i].text));
}

void append(std::string& text, const Table::Row& row, const std::vector<std::size_t>& widths,
            bool colours) {
    for (std::size_t i = 0; i < row.size(); ++i) {
        text.append(styled(row[i].text, colours ? row[i].style : Style::plain));
        if (i + 1 < row.size()) text.append(widths[i] - widthOf(row[i].text) + kGap, ' ');
    }
    text.append("\n");
}

}  // namespace

Table::Table(std::vector<std::string_view> heads, Noun noun) : noun_(noun) {
    for (const auto head : heads) heads_.emplace_back(head, Style::head);
}

std::vector<std::size_t> Table::widths(bool legend) const {
    std::vector<std::size_t> widths;
    if (legend) widen(widths, heads_);
    for (const auto& row : rows_) widen(widths, row);
    return widths;
}

std::string Table::text(bool legend, bool colours) const {
    const bool explained = legend && !heads_.empty();
    const auto columns = widths(explained);
    std::string text;
    if (explained && !rows_.empty()) append(text, heads_, columns, colours);
    for (const auto& row : rows_) append(text, row, columns, colours);
    if (!explained) return text;
    text.append(rows_.empty() ? "" : "\n").append(std::to_string(rows_.size())).append(" ");
    return text.append(rows_.size() == 1 ? noun_.one : noun_.many).append("\n");
}

}  // namespace okvctl
