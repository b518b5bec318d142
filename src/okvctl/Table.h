#pragma once

#include "Terminal.h"

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace okvctl {

/// One cell: a text without control characters.
struct Cell {
    // Texts stand for themselves.
    // NOLINTBEGIN(google-explicit-constructor)
    Cell(std::string words, Style look = Style::plain) : text(std::move(words)), style(look) {}
    Cell(std::string_view words, Style look = Style::plain) : text(words), style(look) {}
    Cell(const char* words, Style look = Style::plain) : text(words), style(look) {}
    // NOLINTEND(google-explicit-constructor)

    std::string text;
    Style style;
};

/// Rows of cells, each column as wide as its widest cell; the last one is not filled up. Around
/// them the legend: a line that names the columns, and the number of rows.
class Table {
public:
    using Row = std::vector<Cell>;

    /// What a row is, for the number of rows.
    struct Noun {
        std::string_view one;
        std::string_view many;
    };

    /// A sheet of names and values, which explains itself and has no legend.
    Table() = default;
    Table(std::vector<std::string_view> heads, Noun noun);

    void add(Row row) { rows_.push_back(std::move(row)); }

    /// An empty table is nothing but its number of rows.
    std::string text(bool legend, bool colours) const;

private:
    std::vector<std::size_t> widths(bool legend) const;

    std::vector<Row> rows_;
    Row heads_;
    Noun noun_;
};

}  // namespace okvctl
