#include "json_value.h"

#include <cctype>
#include <cmath>
#include <cstdlib>

namespace kova::cli_test {

class JsonParser {
public:
    explicit JsonParser(const std::string &text) : s_(text) {}

    JsonValue document() {
        JsonValue v = value();
        space();
        if (i_ != s_.size()) fail("text after the document");
        return v;
    }

private:
    [[noreturn]] void fail(const std::string &what) const {
        throw std::runtime_error("JSON: " + what + " at offset " + std::to_string(i_));
    }
    void space() {
        while (i_ < s_.size() && (s_[i_] == ' ' || s_[i_] == '\t' || s_[i_] == '\n' || s_[i_] == '\r')) ++i_;
    }
    bool take(char c) {
        space();
        if (i_ < s_.size() && s_[i_] == c) {
            ++i_;
            return true;
        }
        return false;
    }
    void expect(char c) {
        if (!take(c)) fail(std::string("expected '") + c + "'");
    }
    bool literal(const char *word) {
        size_t n = std::char_traits<char>::length(word);
        if (s_.compare(i_, n, word) != 0) return false;
        i_ += n;
        return true;
    }

    JsonValue value() {
        space();
        if (i_ >= s_.size()) fail("unexpected end");
        JsonValue v;
        char c = s_[i_];
        if (c == '{') {
            ++i_;
            v.type_ = JsonValue::Type::Object;
            if (take('}')) return v;
            do {
                space();
                if (i_ >= s_.size() || s_[i_] != '"') fail("expected a member name");
                std::string key = string();
                for (const auto &k : v.keys_)
                    if (k == key) fail("duplicate member \"" + key + "\"");
                expect(':');
                v.keys_.push_back(key);
                v.items_.push_back(value());
            } while (take(','));
            expect('}');
        } else if (c == '[') {
            ++i_;
            v.type_ = JsonValue::Type::Array;
            if (take(']')) return v;
            do v.items_.push_back(value());
            while (take(','));
            expect(']');
        } else if (c == '"') {
            v.type_ = JsonValue::Type::String;
            v.string_ = string();
        } else if (literal("true")) {
            v.type_ = JsonValue::Type::Bool;
            v.bool_ = true;
        } else if (literal("false")) {
            v.type_ = JsonValue::Type::Bool;
        } else if (literal("null")) {
            v.type_ = JsonValue::Type::Null;
        } else {
            v.type_ = JsonValue::Type::Number;
            v.number_ = number();
        }
        return v;
    }

    double number() {
        size_t start = i_;
        if (i_ < s_.size() && s_[i_] == '-') ++i_;
        if (i_ >= s_.size() || !std::isdigit(static_cast<unsigned char>(s_[i_]))) fail("bad value");
        if (s_[i_] == '0' && i_ + 1 < s_.size() && std::isdigit(static_cast<unsigned char>(s_[i_ + 1])))
            fail("leading zero");
        while (i_ < s_.size() && (std::isdigit(static_cast<unsigned char>(s_[i_])) || s_[i_] == '.' || s_[i_] == 'e' ||
                                  s_[i_] == 'E' || s_[i_] == '+' || s_[i_] == '-'))
            ++i_;
        return std::strtod(s_.substr(start, i_ - start).c_str(), nullptr);
    }

    static void append_utf8(std::string &out, unsigned int cp) {
        if (cp < 0x80) {
            out += static_cast<char>(cp);
        } else if (cp < 0x800) {
            out += static_cast<char>(0xC0 | (cp >> 6));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        } else if (cp < 0x10000) {
            out += static_cast<char>(0xE0 | (cp >> 12));
            out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (cp >> 18));
            out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        }
    }

    unsigned int hex4() {
        if (i_ + 4 > s_.size()) fail("short \\u escape");
        unsigned int v = 0;
        for (int k = 0; k < 4; ++k) {
            char c = s_[i_++];
            v <<= 4;
            if (c >= '0' && c <= '9')
                v |= static_cast<unsigned int>(c - '0');
            else if (c >= 'a' && c <= 'f')
                v |= static_cast<unsigned int>(c - 'a' + 10);
            else if (c >= 'A' && c <= 'F')
                v |= static_cast<unsigned int>(c - 'A' + 10);
            else
                fail("bad \\u escape");
        }
        return v;
    }

    std::string string() {
        ++i_;  // the opening quote
        std::string out;
        while (true) {
            if (i_ >= s_.size()) fail("unterminated string");
            unsigned char c = static_cast<unsigned char>(s_[i_++]);
            if (c == '"') return out;
            if (c < 0x20) fail("raw control character in a string");
            if (c != '\\') {
                out += static_cast<char>(c);
                continue;
            }
            if (i_ >= s_.size()) fail("unterminated escape");
            char e = s_[i_++];
            switch (e) {
                case '"':
                    out += '"';
                    break;
                case '\\':
                    out += '\\';
                    break;
                case '/':
                    out += '/';
                    break;
                case 'b':
                    out += '\b';
                    break;
                case 'f':
                    out += '\f';
                    break;
                case 'n':
                    out += '\n';
                    break;
                case 'r':
                    out += '\r';
                    break;
                case 't':
                    out += '\t';
                    break;
                case 'u':
                    append_utf8(out, hex4());
                    break;
                default:
                    fail("bad escape");
            }
        }
    }

    const std::string &s_;
    size_t i_ = 0;
};

JsonValue JsonValue::parse(const std::string &text) {
    return JsonParser(text).document();
}

bool JsonValue::boolean() const {
    if (type_ != Type::Bool) throw std::runtime_error("JSON: not a boolean");
    return bool_;
}

double JsonValue::number() const {
    if (type_ != Type::Number) throw std::runtime_error("JSON: not a number");
    return number_;
}

const std::string &JsonValue::str() const {
    if (type_ != Type::String) throw std::runtime_error("JSON: not a string");
    return string_;
}

size_t JsonValue::size() const {
    if (type_ != Type::Array && type_ != Type::Object) throw std::runtime_error("JSON: not a container");
    return items_.size();
}

const JsonValue &JsonValue::operator[](size_t index) const {
    if (type_ != Type::Array || index >= items_.size())
        throw std::runtime_error("JSON: no item " + std::to_string(index));
    return items_[index];
}

const JsonValue &JsonValue::operator[](const std::string &key) const {
    if (type_ == Type::Object)
        for (size_t i = 0; i < keys_.size(); ++i)
            if (keys_[i] == key) return items_[i];
    throw std::runtime_error("JSON: no member \"" + key + "\"");
}

bool JsonValue::has(const std::string &key) const {
    if (type_ != Type::Object) return false;
    for (const auto &k : keys_)
        if (k == key) return true;
    return false;
}

std::vector<std::string> JsonValue::keys() const {
    if (type_ != Type::Object) throw std::runtime_error("JSON: not an object");
    return keys_;
}

}  // namespace kova::cli_test
