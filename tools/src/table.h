// Aligned text columns. On a terminal they fit its width: a cell too wide for its column wraps
// onto further lines of the same row (after commas or at spaces where it can). Into a pipe or a
// file every row is one line, whatever its length.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <ostream>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kovasvc {

class Table {
public:
    enum class Align { Left, Right };

    explicit Table(std::vector<std::string> headers);

    void align(size_t column, Align how);
    // A column that gives way first when the line is too long (lists that wrap well).
    void flexible(size_t column);
    // A row; missing cells are empty, extra ones dropped.
    void add(std::initializer_list<std::string_view> row);
    void add(const std::vector<std::string> &row);
    bool empty() const { return rows_ == 0; }

    // Prints the header (unless --no-header) and the rows, each line starting with `indent`
    // spaces and no longer than `width` characters (as far as the headers allow; a word of the
    // last column that is longer than the room left, such as a long path, runs past it).
    void print(std::ostream &out, size_t indent = 0) const { print(out, output_width(), indent); }
    void print(std::ostream &out, size_t width, size_t indent) const;

    // The cells of a row made on demand: row(r, cells) puts one view per column into `cells`,
    // valid until the next call.
    using RowFn = std::function<void(size_t, std::span<std::string_view>)>;
    // Prints the header and `count` rows that are not kept in the table but made by `row` (r
    // from 0), each asked for once to measure it (once more when the table must be narrowed to
    // fit) and once to print it: a long table without a copy of its cells. The table's own rows
    // are not printed.
    void print_rows(std::ostream &out, size_t count, const RowFn &row, size_t indent = 0) const;

    // The width of the terminal on standard output (COLUMNS, else the terminal's own); no limit
    // when standard output is not a terminal.
    static size_t output_width();

private:
    template <class Cells>
    void add_cells(const Cells &row);
    // Cell `c` of row `r`; row 0 is the header.
    std::string_view cell(size_t r, size_t c) const;
    // The widths of the columns for lines of at most `width` characters, over the header and
    // `rows` rows that row(1..rows) gives (row(0) is the header); `ascii` tells whether every cell
    // is as wide as it is long (no multi-byte character), so that its size is its width.
    std::vector<size_t> widths(size_t width, size_t rows, const RowFn &row, bool &ascii) const;
    void print_from(std::ostream &out, size_t width, size_t indent, size_t rows, const RowFn &row) const;

    std::vector<Align> align_;
    std::vector<bool> flexible_;
    // The header, then the rows, cell after cell: their texts and where each cell ends.
    std::string text_;
    std::vector<uint32_t> ends_;
    size_t rows_ = 0;
};

// Number of characters of a UTF-8 text (continuation bytes do not count).
size_t display_width(std::string_view text);

// `text` cut into lines of at most `width` characters, breaking after commas and at spaces; a
// word longer than the width is cut when `hard`, else left whole on a line of its own.
std::vector<std::string> wrap(const std::string &text, size_t width, bool hard = true);

// "Label: text" with the text wrapped under itself; `column` is where the text starts (at
// least the label's width plus one space).
void print_labelled(std::ostream &out, const std::string &label, const std::string &text, size_t column,
                    size_t width = Table::output_width());

}  // namespace kovasvc
