// A strict reader for the JSON documents that kova-svc prints: exactly one document, no raw
// control characters in strings, no duplicate members; object members in document order.
// Reading a value as the wrong type, or a missing item or member, throws std::runtime_error.
#pragma once

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace kova::cli_test {

class JsonValue {
public:
    static JsonValue parse(const std::string &text) {
        size_t i = 0;
        JsonValue v = read(text, i);
        if (skip(text, i) != '\0') fail(i, "text after the document");
        return v;
    }

    bool is_null() const { return type_ == 'n'; }
    bool boolean() const { return as('b').bool_; }
    double number() const { return as('0').number_; }
    const std::string &str() const { return as('"').string_; }
    std::vector<std::string> keys() const { return as('{').keys_; }
    // A scalar as text: a number as an integer, null as "-", a boolean as true or false.
    std::string text() const {
        if (type_ == '0') return std::to_string(static_cast<long long>(number_));
        return type_ == 'n' ? "-" : type_ == 'b' ? (bool_ ? "true" : "false") : str();
    }
    size_t size() const { return type_ == '[' ? items_.size() : as('{').items_.size(); }
    const JsonValue &operator[](size_t i) const { return i < as('[').items_.size() ? items_[i] : missing(); }
    const JsonValue &operator[](const std::string &key) const {
        auto it = std::find(as('{').keys_.begin(), keys_.end(), key);
        return it != keys_.end() ? items_[static_cast<size_t>(it - keys_.begin())] : missing();
    }

private:
    char type_ = 'n';  // n null, b boolean, 0 number, " string, [ array, { object
    bool bool_ = false;
    double number_ = 0;
    std::string string_;
    std::vector<JsonValue> items_;
    std::vector<std::string> keys_;

    const JsonValue &as(char type) const {
        if (type_ != type) throw std::runtime_error(std::string("JSON: a value of type ") + type_ + ", not " + type);
        return *this;
    }
    [[noreturn]] static const JsonValue &missing() { throw std::runtime_error("JSON: no such item or member"); }
    [[noreturn]] static void fail(size_t i, const std::string &what) {
        throw std::runtime_error("JSON: " + what + " at offset " + std::to_string(i));
    }
    // Skips white space; the next character, or '\0' at the end.
    static char skip(const std::string &s, size_t &i) {
        while (i < s.size() && s[i] != '\0' && std::strchr(" \t\n\r", s[i]) != nullptr) ++i;
        return i < s.size() ? s[i] : '\0';
    }
    static void expect(const std::string &s, size_t &i, char c) {
        if (skip(s, i) != c) fail(i, std::string("expected ") + c);
        ++i;
    }

    static JsonValue read(const std::string &s, size_t &i) {
        JsonValue v;
        char c = v.type_ = skip(s, i);
        if (c == '{' || c == '[') {
            char close = c == '{' ? '}' : ']';
            if (skip(s, ++i) == close) return ++i, v;
            do {
                if (c == '{') {
                    if (skip(s, i) != '"') fail(i, "expected a member name");
                    std::string key = read_string(s, i);
                    if (std::count(v.keys_.begin(), v.keys_.end(), key) != 0) fail(i, "duplicate member " + key);
                    v.keys_.push_back(key);
                    expect(s, i, ':');
                }
                v.items_.push_back(read(s, i));
            } while (skip(s, i) == ',' && ++i != 0);
            expect(s, i, close);
        } else if (c == '"') {
            v.string_ = read_string(s, i);
        } else if (s.compare(i, 4, "true") == 0 || s.compare(i, 5, "false") == 0 || s.compare(i, 4, "null") == 0) {
            v.type_ = c == 'n' ? 'n' : 'b';
            v.bool_ = c == 't';
            i += c == 'f' ? 5 : 4;
        } else {
            size_t start = i + (c == '-'), end = std::min(s.find_first_not_of("0123456789.eE+-", start), s.size());
            auto digit = [&](size_t k) { return k < end && std::isdigit(static_cast<unsigned char>(s[k])); };
            if (!digit(start) || (s[start] == '0' && digit(start + 1))) fail(i, "bad value");
            v.type_ = '0';
            v.number_ = std::strtod(s.substr(i, end - i).c_str(), nullptr);
            i = end;
        }
        return v;
    }

    static std::string read_string(const std::string &s, size_t &i) {
        std::string out;
        for (++i;; ++i) {
            if (i >= s.size()) fail(i, "unterminated string");
            unsigned char c = static_cast<unsigned char>(s[i]);
            if (c == '"') return ++i, out;
            if (c < 0x20) fail(i, "raw control character in a string");
            if (c != '\\') {
                out += static_cast<char>(c);
                continue;
            }
            const char *escapes = "\"\\/bfnrt", *at = ++i < s.size() ? std::strchr(escapes, s[i]) : nullptr;
            if (at != nullptr && *at != '\0') {
                out += "\"\\/\b\f\n\r\t"[at - escapes];
                continue;
            }
            if (s[i] != 'u' || i + 5 > s.size() || s.find_first_not_of("0123456789abcdefABCDEF", i + 1) < i + 5)
                fail(i, "bad escape");
            unsigned long cp = std::strtoul(s.substr(i + 1, 4).c_str(), nullptr, 16);
            i += 4;
            // UTF-8: a lead byte (0xxxxxxx, 110xxxxx or 1110xxxx), then n bytes 10xxxxxx.
            int n = cp < 0x80 ? 0 : cp < 0x800 ? 1 : 2;
            out += static_cast<char>((n == 0 ? 0 : 0xFF00 >> (n + 1) & 0xFF) | cp >> 6 * n);
            for (int k = n - 1; k >= 0; --k) out += static_cast<char>(0x80 | (cp >> 6 * k & 0x3F));
        }
    }
};

}  // namespace kova::cli_test
