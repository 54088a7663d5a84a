#include "foundation/echo.h"

#include <kovaserviceconf.h>

#include <cstdio>
#include <cstring>

#include "foundation/log.h"

namespace kova {
namespace {

// The state a recorded step starts from: no operation sets this code.
constexpr unsigned kStandInCode = 0xFFFFFFFFu;
constexpr char kStandInFile[] = "echo stand-in";

bool is_stand_in(const ErrorState &s) noexcept {
    return s.code == kStandInCode && std::strcmp(s.file, kStandInFile) == 0;
}

// The state as KOVA_ERRFMT prints it; empty when the log would escape a character of its file.
std::string shown(const ErrorState &s) {
    for (const char *p = s.file; *p != '\0'; ++p)
        if (static_cast<unsigned char>(*p) < 0x20 || *p == 0x7F) return {};
    char text[sizeof s.file + 32];
    const int n = std::snprintf(text, sizeof text, KOVA_ERRFMT, s.code, s.file, s.line);
    return n > 0 ? std::string(text, static_cast<size_t>(n)) : std::string();
}

}  // namespace

Echo::Recording::Recording(Echo &echo) noexcept : echo_(echo), outer_(nullptr) {
    echo_.lines_.clear();
    echo_.recorded_ = true;
    echo_.complete_ = true;
    echo_.showings_ = 0;
    echo_.sets_state_ = echo_.start_bound_ = echo_.out_of_memory_ = false;
    echo_.start_ = ErrorState::current();
    KVLIBCErrSetEx(kStandInCode, kStandInFile, 0);
    outer_ = set_line_tap(&echo_);
}

Echo::Recording::~Recording() {
    set_line_tap(outer_);
    const ErrorState now = ErrorState::current();
    if (is_stand_in(now)) {
        echo_.start_.set();
        return;
    }
    echo_.sets_state_ = true;
    echo_.left_ = now;
    if (now.code == KOVA_ERR_OUT_OF_MEMORY) echo_.out_of_memory_ = true;
}

void Echo::keep(const std::string &line) noexcept {
    if (KVLIBCErrGet() == KOVA_ERR_OUT_OF_MEMORY) out_of_memory_ = true;
    try {
        Line kept{line, {}};
        if (showings_ > 0) {
            // Each KOVA_ERRARGS asks three times; the code alone ("0x%X") once.
            const std::string start = showings_ % 3 == 0 ? shown(start_) : std::string();
            for (size_t at = start.empty() ? std::string::npos : line.find(start); at != std::string::npos;
                 at = line.find(start, at + start.size()))
                kept.starts.push_back(at);
            if (start.empty() || kept.starts.size() != static_cast<size_t>(showings_ / 3)) start_bound_ = true;
            showings_ = 0;
        }
        lines_.push_back(std::move(kept));
    } catch (...) {
        complete_ = false;
    }
}

const ErrorState *Echo::shown_state() noexcept {
    if (KVLIBCErrGet() != kStandInCode || !is_stand_in(ErrorState::current())) return nullptr;
    ++showings_;
    return &start_;
}

bool Echo::can_say() const noexcept {
    if (!recorded_ || !complete_ || out_of_memory_) return false;
    if (ErrorState::current() == start_) return true;
    try {
        return !start_bound_ && !shown(ErrorState::current()).empty();
    } catch (...) {
        return false;
    }
}

void Echo::say() const noexcept {
    const ErrorState now = ErrorState::current();
    const bool same = now == start_;
    for (const Line &line : lines_) {
        if (same || line.starts.empty()) {
            send_line(line.text);
            continue;
        }
        try {
            const std::string was = shown(start_), is = shown(now);
            std::string text;
            size_t from = 0;
            for (const size_t at : line.starts) {
                text.append(line.text, from, at - from).append(is);
                from = at + was.size();
            }
            send_line(text.append(line.text, from));
        } catch (...) {
            send_line(line.text);  // memory ran out: the line as the step first said it
        }
    }
    if (sets_state_) left_.set();
}

}  // namespace kova
