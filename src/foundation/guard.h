// The boundary between the C ABI and the C++ inside: no exception crosses it. An allocation
// failure (std::bad_alloc) becomes error 0x0200 and the operation's failure result; any other
// exception is a failure too.
#pragma once

#include <kovaserviceconf.h>

#include <new>
#include <utility>

#include "foundation/result.h"

namespace kova {

template <class R, class F>
R guarded(const char *module, int line, R failure, F &&body) noexcept {
    try {
        return std::forward<F>(body)();
    } catch (const std::bad_alloc &) {
        KVLIBCErrSetEx(KOVA_ERR_OUT_OF_MEMORY, module, line);
        return failure;
    } catch (...) {
        return failure;
    }
}

template <class F>
void guarded_void(F &&body) noexcept {
    try {
        std::forward<F>(body)();
    } catch (...) {
    }
}

// The same for a core step that returns a Result: out of memory becomes a failure 0x0200 naming
// the step's module and line, for its shell to record; other exceptions fail without a code.
template <class R, class F>
R guarded_result(const char *module, int line, F &&body) noexcept {
    try {
        return std::forward<F>(body)();
    } catch (const std::bad_alloc &) {
        return Failure{KOVA_ERR_OUT_OF_MEMORY, module, line};
    } catch (...) {
        return Failure{};
    }
}

}  // namespace kova

// KOVA_GUARDED(failure_value, [&] { ... }) at the top of an exported function.
#define KOVA_GUARDED(failure, ...) ::kova::guarded(__FILE_NAME__, __LINE__, failure, __VA_ARGS__)
// KOVA_GUARDED_RESULT(Result<T>, [&] { ... }) around a core step.
#define KOVA_GUARDED_RESULT(type, ...) ::kova::guarded_result<type>(__FILE_NAME__, __LINE__, __VA_ARGS__)
