// Results of the C++ core. The core never writes the error state or out-pointers: it returns a
// value or a Failure that names the error code and the module and line the error state must
// name. The exported shell turns a Failure into the error state with set_error().
#pragma once

#include <kovaserviceconf.h>

#include <utility>
#include <variant>

namespace kova {

struct Failure {
    unsigned code = 0;  // 0: the operation fails without changing the error state
    const char *module = "";
    int line = 0;
};

// A failure that names this module and line, as KOVA_SET_ERR would.
#define KOVA_FAILURE(code) (::kova::Failure{(code), __FILE_NAME__, __LINE__})
// A failure that leaves the error state as it is (the platform or an earlier step set it).
#define KOVA_FAILURE_KEEP (::kova::Failure{0, __FILE_NAME__, __LINE__})

// A failure's code, module and line, for a log line's "[0x%04X %s:%d]".
#define KOVA_FAILURE_ARGS(f) (f).code, (f).module, (f).line

template <class T>
class [[nodiscard]] Result {
public:
    Result(T value) : v_(std::in_place_index<0>, std::move(value)) {}
    Result(Failure f) : v_(std::in_place_index<1>, f) {}

    bool ok() const noexcept { return v_.index() == 0; }
    explicit operator bool() const noexcept { return ok(); }

    T &value() & { return std::get<0>(v_); }
    const T &value() const & { return std::get<0>(v_); }
    T &&value() && { return std::get<0>(std::move(v_)); }
    T *operator->() { return &std::get<0>(v_); }
    const T *operator->() const { return &std::get<0>(v_); }
    T &operator*() & { return std::get<0>(v_); }
    const T &operator*() const & { return std::get<0>(v_); }

    const Failure &failure() const { return std::get<1>(v_); }

private:
    std::variant<T, Failure> v_;
};

template <>
class [[nodiscard]] Result<void> {
public:
    Result() = default;
    Result(Failure f) : failed_(true), f_(f) {}

    bool ok() const noexcept { return !failed_; }
    explicit operator bool() const noexcept { return ok(); }
    const Failure &failure() const { return f_; }

private:
    bool failed_ = false;
    Failure f_{};
};

// At the ABI edge only: records a failure in the error state (nothing when its code is 0).
inline void set_error(const Failure &f) noexcept {
    if (f.code != 0) KVLIBCErrSetEx(f.code, f.module, f.line);
}

}  // namespace kova
