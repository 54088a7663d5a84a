#include "table.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <limits>

#include "session.h"

namespace kovasvc {

namespace {

constexpr size_t kGap = 2;

// Byte offset of the character at position `chars` of `text`.
size_t byte_offset(const std::string &text, size_t chars) {
    size_t i = 0;
    for (size_t n = 0; i < text.size(); ++i) {
        if ((static_cast<unsigned char>(text[i]) & 0xC0u) == 0x80u) continue;
        if (n++ == chars) break;
    }
    return i;
}

// A line may break after a comma that a port follows ("80,|443", not "tcp,|udp").
bool comma_break(std::string_view text, size_t i) {
    return text[i] == ',' && i + 1 < text.size() && std::isdigit(static_cast<unsigned char>(text[i + 1]));
}

// The widest piece of `text` that wrap() keeps whole: pieces end after such a comma or at a
// space.
size_t longest_word(std::string_view text) {
    size_t longest = 0, start = 0;
    for (size_t i = 0; i <= text.size(); ++i) {
        if (i == text.size() || text[i] == ' ' || comma_break(text, i)) {
            size_t end = i < text.size() && text[i] == ',' ? i + 1 : i;
            longest = std::max(longest, display_width(text.substr(start, end - start)));
            start = i + 1;
        }
    }
    return longest;
}

}  // namespace

size_t display_width(std::string_view text) {
    // The bytes less the continuation bytes (10xxxxxx), eight at a time.
    constexpr uint64_t kHigh = 0x8080808080808080u;
    size_t n = text.size(), i = 0;
    for (; i + 8 <= text.size(); i += 8) {
        uint64_t x;
        std::memcpy(&x, text.data() + i, 8);
        if (const uint64_t continuation = x & ~(x << 1) & kHigh; continuation != 0)
            n -= static_cast<size_t>(std::popcount(continuation));
    }
    for (; i < text.size(); ++i)
        if ((static_cast<unsigned char>(text[i]) & 0xC0u) == 0x80u) --n;
    return n;
}

std::vector<std::string> wrap(const std::string &text, size_t width, bool hard) {
    std::vector<std::string> lines;
    if (width == 0) width = 1;
    std::string rest = text;
    while (display_width(rest) > width) {
        size_t limit = byte_offset(rest, width);  // bytes of the first `width` characters
        size_t cut = std::string::npos;
        bool drop_space = false;
        for (size_t i = limit; i > 0; --i) {
            if (comma_break(rest, i - 1)) {
                cut = i;
                break;
            }
            if (i < rest.size() && rest[i] == ' ' && i > 0) {
                cut = i;
                drop_space = true;
                break;
            }
        }
        if (cut == std::string::npos && !hard) {
            // No break within the width: the first word goes whole on its own line.
            size_t comma = limit;
            while (comma < rest.size() && !comma_break(rest, comma)) ++comma;
            comma = comma < rest.size() ? comma + 1 : std::string::npos;
            size_t space = rest.find(' ', limit);
            cut = std::min(comma, space);
            if (cut == std::string::npos || cut >= rest.size()) break;
            drop_space = cut == space;
        }
        if (cut == std::string::npos || cut == 0) cut = limit;
        lines.push_back(rest.substr(0, cut));
        rest = rest.substr(cut + (drop_space ? 1 : 0));
    }
    lines.push_back(rest);
    return lines;
}

void print_labelled(std::ostream &out, const std::string &label, const std::string &text, size_t column, size_t width) {
    column = std::max(column, display_width(label) + 1);
    auto lines = wrap(text, width > column ? width - column : 1, false);
    for (size_t i = 0; i < lines.size(); ++i) {
        std::string head = i == 0 ? label : std::string();
        out << head << std::string(column - display_width(head), ' ') << lines[i] << '\n';
    }
}

Table::Table(std::vector<std::string> headers) : align_(headers.size(), Align::Left), flexible_(headers.size(), false) {
    add_cells(headers);
}

void Table::flexible(size_t column) {
    if (column < flexible_.size()) flexible_[column] = true;
}

void Table::align(size_t column, Align how) {
    if (column < align_.size()) align_[column] = how;
}

template <class Cells>
void Table::add_cells(const Cells &row) {
    size_t n = align_.size(), c = 0;
    for (auto it = row.begin(); it != row.end() && c < n; ++it, ++c) {
        text_.append(std::string_view(*it));
        ends_.push_back(static_cast<uint32_t>(text_.size()));
    }
    for (; c < n; ++c) ends_.push_back(static_cast<uint32_t>(text_.size()));
}

void Table::add(std::initializer_list<std::string_view> row) {
    add_cells(row);
    ++rows_;
}

void Table::add(const std::vector<std::string> &row) {
    add_cells(row);
    ++rows_;
}

std::string_view Table::cell(size_t r, size_t c) const {
    size_t i = r * align_.size() + c;
    size_t begin = i == 0 ? 0 : ends_[i - 1];
    return std::string_view(text_).substr(begin, ends_[i] - begin);
}

std::vector<size_t> Table::widths(size_t width, size_t rows, const RowFn &row, bool &ascii) const {
    const size_t n = align_.size();
    std::vector<size_t> w(n);
    std::vector<std::string_view> cells(n);
    ascii = true;
    for (size_t r = 0; r <= rows; ++r) {
        row(r, cells);
        for (size_t c = 0; c < n; ++c) {
            const size_t cell = display_width(cells[c]);
            ascii = ascii && cell == cells[c].size();
            w[c] = std::max(w[c], cell);
        }
    }
    auto total = [&] {
        size_t t = n == 0 ? 0 : kGap * (n - 1);
        for (size_t x : w) t += x;
        return t;
    };
    if (total() <= width) return w;
    // The least width of a column: its header's (at least 4), and for a flexible column, which
    // wraps between its words and never inside one, its longest word; never more than it needs.
    std::vector<size_t> least(n);
    for (size_t r = 0; r <= rows; ++r) {
        row(r, cells);
        for (size_t c = 0; c < n; ++c) {
            if (r == 0)
                least[c] = std::max<size_t>(display_width(cells[c]), 4);
            else if (flexible_[c])
                least[c] = std::max(least[c], longest_word(cells[c]));
        }
    }
    for (size_t c = 0; c < n; ++c) least[c] = std::min(least[c], w[c]);
    // Narrow the widest column that can still give way until the line fits: flexible columns
    // first, the others only when those are down to their least width.
    for (bool only_flexible : {true, false}) {
        while (total() > width) {
            size_t widest = n;
            for (size_t c = 0; c < n; ++c)
                if ((flexible_[c] || !only_flexible) && w[c] > least[c] && (widest == n || w[c] > w[widest]))
                    widest = c;
            if (widest == n) break;
            --w[widest];
        }
    }
    return w;
}

size_t Table::output_width() {
    constexpr size_t kUnlimited = std::numeric_limits<size_t>::max() / 2;
    if (::isatty(STDOUT_FILENO) != 1) return kUnlimited;
    if (const char *columns = std::getenv("COLUMNS"); columns != nullptr) {
        long n = std::strtol(columns, nullptr, 10);
        if (n > 0) return static_cast<size_t>(n);
    }
    struct winsize ws {};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0) return ws.ws_col;
    return 80;
}

void Table::print(std::ostream &out, size_t width, size_t indent) const {
    print_from(out, width, indent, rows_, [this](size_t r, std::span<std::string_view> cells) {
        for (size_t c = 0; c < cells.size(); ++c) cells[c] = cell(r, c);
    });
}

void Table::print_rows(std::ostream &out, size_t count, const RowFn &row, size_t indent) const {
    print_from(out, output_width(), indent, count, [&](size_t r, std::span<std::string_view> cells) {
        if (r != 0) return row(r - 1, cells);
        for (size_t c = 0; c < cells.size(); ++c) cells[c] = cell(0, c);
    });
}

void Table::print_from(std::ostream &out, size_t width, size_t indent, size_t rows, const RowFn &row) const {
    // Text without a byte above 0x7F (nearly every table) is as wide as it is long.
    bool ascii_only = true;
    std::vector<size_t> w = widths(width > indent ? width - indent : 1, rows, row, ascii_only);
    const size_t n = align_.size();
    // Lines not written yet, put together in place and written 64 KiB or more at a time.
    constexpr size_t kFlush = 64 * 1024;
    std::unique_ptr<char[]> text;
    size_t used = 0, capacity = 0;
    std::vector<std::string_view> views(n);  // the cells of the line, and their widths
    std::vector<size_t> sizes(n);
    size_t most = indent;  // the most a line of the table can take
    for (size_t c = 0; c < n; ++c) most += w[c] + kGap;
    auto line = [&] {
        size_t room = most + 1;
        for (size_t c = 0; c < n; ++c) room += views[c].size();
        if (used + room > capacity) {
            capacity = std::max(kFlush + room, 2 * capacity);
            auto grown = std::make_unique_for_overwrite<char[]>(capacity);
            if (used != 0) std::memcpy(grown.get(), text.get(), used);
            text = std::move(grown);
        }
        char *const start = text.get() + used;
        char *at = std::fill_n(start, indent, ' ');
        for (size_t c = 0; c < n; ++c) {
            const size_t pad = w[c] - std::min(w[c], sizes[c]);
            if (align_[c] == Align::Right) at = std::fill_n(at, pad, ' ');
            at = std::copy_n(views[c].data(), views[c].size(), at);
            if (c + 1 < n) at = std::fill_n(at, (align_[c] != Align::Right ? pad : 0) + kGap, ' ');
        }
        while (at > start && at[-1] == ' ') --at;
        *at++ = '\n';
        used = static_cast<size_t>(at - text.get());
        if (used >= kFlush) {
            out.write(text.get(), static_cast<std::streamsize>(used));
            used = 0;
        }
    };
    std::vector<std::vector<std::string>> cells(n);
    const size_t first = session().no_header ? 1 : 0;
    for (size_t r = first; r <= rows; ++r) {
        bool fits = true;
        row(r, views);
        for (size_t c = 0; c < n; ++c) {
            sizes[c] = ascii_only ? views[c].size() : display_width(views[c]);
            fits = fits && sizes[c] <= w[c];
        }
        if (fits) {
            line();
            continue;
        }
        // A cell too wide for its column wraps onto further lines of the row.
        size_t height = 1;
        for (size_t c = 0; c < n; ++c) {
            cells[c] = wrap(std::string(views[c]), w[c], c + 1 < n);
            height = std::max(height, cells[c].size());
        }
        for (size_t l = 0; l < height; ++l) {
            for (size_t c = 0; c < n; ++c) {
                views[c] = l < cells[c].size() ? std::string_view(cells[c][l]) : std::string_view();
                sizes[c] = ascii_only ? views[c].size() : display_width(views[c]);
            }
            line();
        }
    }
    if (used != 0) out.write(text.get(), static_cast<std::streamsize>(used));
}

}  // namespace kovasvc
