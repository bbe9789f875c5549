#include "view.h"

#include <utility>

namespace py = pybind11;

namespace mempager::python
{
namespace
{
/// Those besides the one that is given.
Py_ssize_t other_references(const py::object& array)
{
    return Py_REFCNT(array.ptr()) - 1;
}

/// Of an array that one variable holds, and perhaps what a frame has shown of its variables.
constexpr Py_ssize_t kLooked = 2;

py::object frame_at(int depth)
{
    return py::module_::import("sys").attr("_getframe")(depth);
}

int times_among_variables(const py::object& shown, const py::object& array)
{
    int found = 0;
    for (const py::handle value : shown.attr("values")())
        found += value.is(array) ? 1 : 0;
    return found;
}

/// Whether nothing but one variable of the frame refers to the array.
bool is_one_variable_of(const py::object& frame, const py::object& array)
{
    constexpr int of_a_function = 1; // CO_OPTIMIZED
    const py::object shown = frame.attr("f_locals");
    const int found = times_among_variables(shown, array);
    // Until Python 3.12 a function's frame keeps what it has shown, and so all that is in it.
    if ((frame.attr("f_code").attr("co_flags").cast<int>() & of_a_function) != 0 &&
        PyDict_CheckExact(shown.ptr()))
        PyDict_Clear(shown.ptr());
    return found == 1 && other_references(array) == 1;
}

/// Lets go of the array's memory. Nothing else may look at it: views have the array as their base.
void empty_in_place(const py::object& array)
{
    // As unpickling sets the state of an array: version, shape, type, order, bytes.
    array.attr("__setstate__")(
        py::make_tuple(1, py::make_tuple(0), array.attr("dtype"), false, py::bytes()));
}
} // namespace

view::view(py::object array, py::object warning)
    : m_array(std::move(array)), m_warning(std::move(warning))
{
}

py::object view::array() const
{
    if (!m_array)
        throw py::value_error("the mapping has ended with its block: map the piece again");
    return m_array;
}

void view::leave(int depth)
{
    const py::object warning = m_warning;
    py::object array = std::exchange(m_array, py::object());
    const Py_ssize_t others = array ? other_references(array) : 0;
    if (others == 0)
        return;
    if (others <= kLooked && is_one_variable_of(frame_at(depth), array))
        empty_in_place(array);
    else if (!warning.is_none() &&
             PyErr_WarnEx(warning.ptr(),
                          "an array is still in use behind its with block: it keeps its mapping",
                          depth + 1) != 0)
        throw py::error_already_set();
}
} // namespace mempager::python
