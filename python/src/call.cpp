#include "call.h"

#include "Rw/RWBoundsErr.h"
#include "mempager/error.h"

#include <exception>
#include <string>

namespace py = pybind11;

namespace mempager::python
{
namespace
{
PyObject* kind_of(errc code)
{
    switch (code) {
    case errc::no_memory:
    case errc::no_room:
        return PyExc_MemoryError;
    case errc::too_large:
        return PyExc_OverflowError;
    case errc::in_use:
        return PyExc_BufferError;
    default:
        return PyExc_ValueError;
    }
}

void raise(PyObject* kind, const char* what)
{
    const std::string cause = log::cause();
    PyErr_SetString(kind, (cause.empty() ? what : what + (": " + cause)).c_str());
}

void translate(std::exception_ptr thrown)
try {
    if (thrown)
        std::rethrow_exception(thrown);
} catch (const error& failure) {
    raise(kind_of(failure.why().code), failure.what());
} catch (const RWBoundsErr& failure) {
    raise(PyExc_ValueError, failure.what());
}

py::list as_python(const std::vector<log::record>& lines)
{
    py::list all;
    for (const log::record& line : lines)
        all.append(py::make_tuple(
            line.level, line.source, line.line, line.function,
            py::reinterpret_steal<py::str>(PyUnicode_DecodeUTF8(
                line.text, Py_ssize_t(std::char_traits<char>::length(line.text)), "replace"))));
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
