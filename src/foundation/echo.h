// Saying a step again. Inside one call, a value that several parts of the call need (the
// firewall catalogue, for each source of a conflict check and each section of a file check) is
// built once. What building it said (its log lines) and left (the error state) is still said and
// left each time the value is asked for, as if it were built again. An Echo runs the step once,
// keeps its lines and the state it left, and says them again on request.
//
// A step's lines depend on the files it reads and on the error state it starts from, which a line
// prints ("[0x%04X %s:%d]", KOVA_ERRARGS) until the step sets a state of its own. The step runs
// from a stand-in state that no operation sets: KOVA_ERRARGS shows the real start state in its
// place, and the Echo notes where in the line it did, so that the line is said again with the
// state the step would start from then. A line that shows the start state in another form (the
// code alone) is said again only from the same start state; otherwise the step runs again. A
// step that ran out of memory is not said again (another run might not), nor one whose lines
// could not all be kept.
#pragma once

#include <string>
#include <vector>

#include "foundation/log.h"

namespace kova {

class Echo final : LineTap {
public:
    Echo() = default;
    Echo(const Echo &) = delete;
    Echo &operator=(const Echo &) = delete;

    // Runs `step`, its lines sent as it logs them, and keeps what it said and left.
    template <class Step>
    auto record(Step &&step) {
        Recording recording(*this);
        return step();
    }
    // Whether say() now stands for running the step again.
    bool can_say() const noexcept;
    // Sends the kept lines again and leaves the error state as the step left it.
    void say() const noexcept;

private:
    class Recording {
    public:
        explicit Recording(Echo &echo) noexcept;
        ~Recording();
        Recording(const Recording &) = delete;
        Recording &operator=(const Recording &) = delete;

    private:
        Echo &echo_;
        LineTap *outer_;
    };

    void keep(const std::string &line) noexcept override;
    void lose() noexcept override { complete_ = false; }
    const ErrorState *shown_state() noexcept override;

    struct Line {
        std::string text;
        std::vector<size_t> starts;  // where the start state shows, as "[0x%04X %s:%d]"
    };

    std::vector<Line> lines_;
    ErrorState start_;
    ErrorState left_;
    int showings_ = 0;  // calls that showed the start state since the last line was kept
    bool recorded_ = false;
    bool complete_ = true;
    bool sets_state_ = false;   // the step set the error state; left_ is what it left
    bool start_bound_ = false;  // a line shows the start state where it cannot be replaced
    bool out_of_memory_ = false;
};

}  // namespace kova
