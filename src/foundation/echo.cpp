#include "foundation/echo.h"

#include <kovaserviceconf.h>

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

}  // namespace

Echo::Recording::Recording(Echo &echo) noexcept : echo_(echo), outer_(nullptr) {
    echo_.lines_.clear();
    echo_.recorded_ = true;
    echo_.complete_ = true;
    echo_.sets_state_ = echo_.shows_start_ = echo_.out_of_memory_ = false;
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
        lines_.push_back(line);
    } catch (...) {
        complete_ = false;
    }
}

const ErrorState *Echo::shown_state() noexcept {
    if (KVLIBCErrGet() != kStandInCode || !is_stand_in(ErrorState::current())) return nullptr;
    shows_start_ = true;
    return &start_;
}

bool Echo::can_say() const noexcept {
    return recorded_ && complete_ && !out_of_memory_ && (!shows_start_ || ErrorState::current() == start_);
}

void Echo::say() const noexcept {
    for (const std::string &line : lines_) send_line(line);
    if (sets_state_) left_.set();
}

}  // namespace kova
