#include "json.h"

#include <cstdio>

namespace kovasvc {

namespace {

// Length of the valid UTF-8 sequence at text[i], or 0 if the bytes there are not one.
size_t utf8_sequence(std::string_view text, size_t i) {
    auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
    unsigned char c = byte(i);
    size_t len;
    unsigned int cp;
    if (c >= 0xC2 && c <= 0xDF) {
        len = 2;
        cp = c & 0x1Fu;
    } else if (c >= 0xE0 && c <= 0xEF) {
        len = 3;
        cp = c & 0x0Fu;
    } else if (c >= 0xF0 && c <= 0xF4) {
        len = 4;
        cp = c & 0x07u;
    } else {
        return 0;
    }
    if (i + len > text.size()) return 0;
    for (size_t k = 1; k < len; ++k) {
        if ((byte(i + k) & 0xC0u) != 0x80u) return 0;
        cp = (cp << 6) | (byte(i + k) & 0x3Fu);
    }
    // Overlong forms, surrogates and values above U+10FFFF are not valid UTF-8.
    if ((len == 3 && cp < 0x800) || (len == 4 && (cp < 0x10000 || cp > 0x10FFFF)) || (cp >= 0xD800 && cp <= 0xDFFF))
        return 0;
    return len;
}

}  // namespace

std::string Json::quote(std::string_view text) {
    std::string q;
    q.reserve(text.size() + 2);
    q += '"';
    for (size_t i = 0; i < text.size();) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (c < 0x80) {
            switch (c) {
                case '"':
                    q += "\\\"";
                    break;
                case '\\':
                    q += "\\\\";
                    break;
                case '\b':
                    q += "\\b";
                    break;
                case '\f':
                    q += "\\f";
                    break;
                case '\n':
                    q += "\\n";
                    break;
                case '\r':
                    q += "\\r";
                    break;
                case '\t':
                    q += "\\t";
                    break;
                default:
                    if (c < 0x20) {
                        char buf[8];
                        std::snprintf(buf, sizeof buf, "\\u%04x", c);
                        q += buf;
                    } else {
                        q += static_cast<char>(c);
                    }
            }
            ++i;
            continue;
        }
        size_t len = utf8_sequence(text, i);
        if (len == 0) {
            q += "\\ufffd";  // a byte that is not UTF-8 (texts of files in another encoding)
            ++i;
        } else {
            q.append(text.substr(i, len));
            i += len;
        }
    }
    q += '"';
    return q;
}

void Json::before_value() {
    if (after_key_) {
        after_key_ = false;
        return;
    }
    if (!first_.empty()) {
        if (!first_.back()) out_ << ',';
        first_.back() = false;
    }
}

Json &Json::begin_object() {
    before_value();
    out_ << '{';
    first_.push_back(true);
    return *this;
}

Json &Json::end_object() {
    out_ << '}';
    first_.pop_back();
    return *this;
}

Json &Json::begin_array() {
    before_value();
    out_ << '[';
    first_.push_back(true);
    return *this;
}

Json &Json::end_array() {
    out_ << ']';
    first_.pop_back();
    return *this;
}

Json &Json::key(std::string_view name) {
    before_value();
    out_ << quote(name) << ':';
    after_key_ = true;
    return *this;
}

Json &Json::string(std::string_view text) {
    before_value();
    out_ << quote(text);
    return *this;
}

Json &Json::text_or_null(const char *text) {
    return text != nullptr ? string(text) : null();
}

Json &Json::number(std::int64_t value) {
    before_value();
    out_ << value;
    return *this;
}

Json &Json::boolean(bool value) {
    before_value();
    out_ << (value ? "true" : "false");
    return *this;
}

Json &Json::null() {
    before_value();
    out_ << "null";
    return *this;
}

void Json::finish() {
    out_ << '\n';
}

}  // namespace kovasvc
