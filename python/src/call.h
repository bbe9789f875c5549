#ifndef MEMPAGER_PYTHON_CALL_H
#define MEMPAGER_PYTHON_CALL_H

#include "log.h"

#include <pybind11/pybind11.h>

#include <exception>
#include <optional>
#include <utility>

namespace mempager::python
{
/// Hands the lines that wait to Python's logging. For a thread that holds the interpreter's lock
/// and none of the library's. Never throws: a handler's exception is reported as the interpreter
/// reports those of destructors.
void deliver_log() noexcept;

/// Makes the library's exceptions those of Python: OutOfMemoryError with the cause that the
/// library tells, BufferError, OverflowError and ValueError.
void translate_errors();

/// Makes a call of the library without the interpreter's lock, so that other threads run on, and
/// hands on what it has logged.
///
/// Taking the lock again ends the thread, by unwinding it, if the interpreter has ended meanwhile.
/// So no destructor may do that, and nothing here catches it.
template <class Call>
auto unlocked(Call&& call)
{
    std::optional<decltype(call())> result;
    std::exception_ptr failure;
    PyThreadState* const mine = PyEval_SaveThread();
    try {
        result.emplace(call());
    } catch (const std::exception&) {
        failure = std::current_exception();
    }
    PyEval_RestoreThread(mine);
    if (log::is_waiting())
        deliver_log();
    if (failure)
        std::rethrow_exception(failure);
    return *std::move(result);
}
} // namespace mempager::python

#endif
