#include "table.h"

#include <algorithm>

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

}  // namespace

size_t display_width(const std::string &text) {
    size_t n = 0;
    for (unsigned char c : text)
        if ((c & 0xC0u) != 0x80u) ++n;
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
            if (rest[i - 1] == ',') {
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
            size_t comma = rest.find(',', limit), space = rest.find(' ', limit);
            if (comma != std::string::npos) comma += 1;
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

void print_labelled(std::ostream &out, const std::string &label, const std::string &text, size_t column,
                    size_t width) {
    column = std::max(column, display_width(label) + 1);
    auto lines = wrap(text, width > column ? width - column : 1, false);
    for (size_t i = 0; i < lines.size(); ++i) {
        std::string head = i == 0 ? label : std::string();
        out << head << std::string(column - display_width(head), ' ') << lines[i] << '\n';
    }
}

Table::Table(std::vector<std::string> headers)
    : headers_(std::move(headers)), align_(headers_.size(), Align::Left), flexible_(headers_.size(), false) {}

void Table::flexible(size_t column) {
    if (column < flexible_.size()) flexible_[column] = true;
}

void Table::align(size_t column, Align how) {
    if (column < align_.size()) align_[column] = how;
}

void Table::add(std::vector<std::string> row) {
    row.resize(headers_.size());
    rows_.push_back(std::move(row));
}

std::vector<size_t> Table::widths(size_t width) const {
    size_t n = headers_.size();
    std::vector<size_t> w(n), least(n);
    for (size_t c = 0; c < n; ++c) {
        w[c] = display_width(headers_[c]);
        least[c] = std::max<size_t>(w[c], 4);
        for (const auto &row : rows_) w[c] = std::max(w[c], display_width(row[c]));
        least[c] = std::min(least[c], w[c]);
    }
    auto total = [&] {
        size_t t = n == 0 ? 0 : kGap * (n - 1);
        for (size_t x : w) t += x;
        return t;
    };
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

void Table::print(std::ostream &out, size_t width, size_t indent) const {
    std::vector<size_t> w = widths(width > indent ? width - indent : 1);
    size_t n = headers_.size();
    auto print_row = [&](const std::vector<std::string> &row) {
        std::vector<std::vector<std::string>> cells(n);
        size_t height = 1;
        for (size_t c = 0; c < n; ++c) {
            cells[c] = wrap(row[c], w[c], c + 1 < n);
            height = std::max(height, cells[c].size());
        }
        for (size_t line = 0; line < height; ++line) {
            std::string text(indent, ' ');
            for (size_t c = 0; c < n; ++c) {
                const std::string cell = line < cells[c].size() ? cells[c][line] : std::string();
                size_t pad = w[c] - std::min(w[c], display_width(cell));
                if (align_[c] == Align::Right) text += std::string(pad, ' ') + cell;
                else text += cell + (c + 1 < n ? std::string(pad, ' ') : std::string());
                if (c + 1 < n) text += std::string(kGap, ' ');
            }
            while (!text.empty() && text.back() == ' ') text.pop_back();
            out << text << '\n';
        }
    };
    print_row(headers_);
    for (const auto &row : rows_) print_row(row);
}

}  // namespace kovasvc
