#include "call.h"

#include "Rw/RWBoundsErr.h"
#include "mempager/error.h"

#include <algorithm>
#include <array>
#include <exception>
#include <string>

namespace py = pybind11;

namespace mempager::python
{
namespace
{
constexpr std::array kOperations = {"",      "allocate", "register",       "map",
                                    "cache", "other",    "host_allocation"};
static_assert(kOperations.size() == std::size_t(Mem_Reason::Operation::HostAllocation) + 1);

constexpr std::array kLimits = {"shared_memory", "shared_memory_names",
                                "disk",          "disk_names",
                                "quota",         "group",
                                "machine",       "commitment",
                                "address_space", "maps",
                                "file_size",     "descriptors",
                                "open_files",    "setting",
                                "memory",        "request",
                                "descriptor",    "freed_piece",
                                "ended",         "unknown"};
static_assert(kLimits.size() == std::size_t(Mem_Reason::Limit::Unknown) + 1);

/// Of bytes that may be cut in the middle of a character.
py::object text_of(const char* bytes)
{
    PyObject* const text =
        PyUnicode_DecodeUTF8(bytes, Py_ssize_t(std::char_traits<char>::length(bytes)), "replace");
    if (text == nullptr)
        throw py::error_already_set();
    return py::reinterpret_steal<py::object>(text);
}

void raise_without_memory(const error& failure)
try {
    const Mem_Reason& cause = failure.why().cause;
    const bool is_known = cause.operation != Mem_Reason::Operation::None;
    const py::object kind = py::module_::import("mempager._errors").attr("OutOfMemoryError");
    const py::object made =
        kind(text_of(failure.what()), kOperations.at(std::size_t(cause.operation)),
             is_known ? kLimits.at(std::size_t(cause.limit)) : "",
             std::max(cause.wanted, failure.why().wanted), cause.most, cause.left);
    PyErr_SetObject(kind.ptr(), made.ptr());
} catch (py::error_already_set& other) {
    other.restore(); // there is no memory for an exception with attributes
}

void raise(const error& failure)
{
    switch (failure.why().code) {
    case errc::no_memory:
    case errc::no_room:
        return raise_without_memory(failure);
    case errc::too_large:
        return PyErr_SetString(PyExc_OverflowError, failure.what());
    case errc::in_use:
        return PyErr_SetString(PyExc_BufferError, failure.what());
    default:
        return PyErr_SetString(PyExc_ValueError, failure.what());
    }
}

void translate(std::exception_ptr thrown)
try {
    if (thrown)
        std::rethrow_exception(thrown);
} catch (const error& failure) {
    raise(failure);
} catch (const RWBoundsErr& failure) {
    PyErr_SetString(PyExc_ValueError, failure.what());
}

py::list as_python(const std::vector<log::record>& lines)
{
    py::list all;
    for (const log::record& line : lines)
        all.append(
            py::make_tuple(line.level, line.source, line.line, line.function, text_of(line.text)));
    return all;
}

void deliver()
{
    std::size_t lost = 0;
    const py::list lines = as_python(log::take(lost));
    py::module_::import("mempager._log").attr("deliver")(lines, lost);
}
} // namespace

void translate_errors()
{
    py::register_exception_translator(&translate);
}

void deliver_log() noexcept
{
    static bool delivering = false; // under the interpreter's lock; a handler may call us again
    if (std::exchange(delivering, true))
        return;
    const py::error_scope kept; // the call may have failed
    try {
        deliver();
    } catch (py::error_already_set& failure) {
        failure.discard_as_unraisable("mempager's log");
    } catch (const std::exception&) {
        // No memory for the lines: they wait for the next call.
    }
    delivering = false;
}
} // namespace mempager::python
