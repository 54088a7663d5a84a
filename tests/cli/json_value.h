// A small JSON reader for checking the documents that kova-svc prints: strict syntax, values
// kept in a tree, object members in document order.
#pragma once

#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace kova::cli_test {

class JsonValue {
public:
    enum class Type { Null, Bool, Number, String, Array, Object };

    // Throws std::runtime_error when `text` is not exactly one JSON document (white space
    // around it allowed).
    static JsonValue parse(const std::string &text);

    Type type() const { return type_; }
    bool is_null() const { return type_ == Type::Null; }
    bool is_object() const { return type_ == Type::Object; }
    bool is_array() const { return type_ == Type::Array; }
    bool is_string() const { return type_ == Type::String; }
    bool is_number() const { return type_ == Type::Number; }
    bool is_bool() const { return type_ == Type::Bool; }

    bool boolean() const;
    double number() const;
    const std::string &str() const;

    size_t size() const;                                        // array items or object members
    const JsonValue &operator[](size_t index) const;            // array item
    const JsonValue &operator[](const std::string &key) const;  // object member; throws if absent
    bool has(const std::string &key) const;
    std::vector<std::string> keys() const;  // object member names in document order

private:
    friend class JsonParser;
    Type type_ = Type::Null;
    bool bool_ = false;
    double number_ = 0;
    std::string string_;
    std::vector<JsonValue> items_;
    std::vector<std::string> keys_;
};

}  // namespace kova::cli_test
