// Aligned text columns. On a terminal they fit its width: a cell too wide for its column wraps
// onto further lines of the same row (after commas or at spaces where it can). Into a pipe or a
// file every row is one line, whatever its length.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <ostream>
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
    // Room for that many rows (more than they need costs only addresses: the pages that are not
    // written are never touched), so that the cells are not copied as the table grows.
    void reserve(size_t rows) {
        ends_.reserve((rows + 1) * align_.size());
        text_.reserve(rows * 256);
    }

    // Prints the header (unless --no-header) and the rows, each line starting with `indent`
    // spaces and no longer than `width` characters (as far as the headers allow; a word of the
    // last column that is longer than the room left, such as a long path, runs past it).
    void print(std::ostream &out, size_t indent = 0) const { print(out, output_width(), indent); }
    void print(std::ostream &out, size_t width, size_t indent) const;

    // The width of the terminal on standard output (COLUMNS, else the terminal's own); no limit
    // when standard output is not a terminal.
    static size_t output_width();

private:
    template <class Cells>
    void add_cells(const Cells &row);
    // Cell `c` of row `r`; row 0 is the header.
    std::string_view cell(size_t r, size_t c) const;
    // Whether no byte of the cells is above 0x7F.
    bool ascii() const;
    std::vector<size_t> widths(size_t width, bool ascii) const;

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
