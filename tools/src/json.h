// A small streaming JSON writer: one document, compact, UTF-8, proper string escaping.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace kovasvc {

class Json {
public:
    explicit Json(std::ostream &out) : out_(out) {}

    Json &begin_object();
    Json &end_object();
    Json &begin_array();
    Json &end_array();

    // The key of the next member of the current object.
    Json &key(std::string_view name);

    Json &string(std::string_view text);
    // A C text that may be null (written as null).
    Json &text_or_null(const char *text);
    Json &number(std::int64_t value);
    Json &boolean(bool value);
    Json &null();

    // Ends the document with a line break.
    void finish();

    // `text` as a JSON string literal, quotes included.
    static std::string quote(std::string_view text);

private:
    void before_value();

    std::ostream &out_;
    std::vector<bool> first_;  // per open container: nothing written in it yet
    bool after_key_ = false;
};

}  // namespace kovasvc
