#ifndef MEMPAGER_PYTHON_VIEW_H
#define MEMPAGER_PYTHON_VIEW_H

#include <pybind11/pybind11.h>

namespace mempager::python
{
/// A NumPy array on a mapping, for the length of a `with` block.
///
/// The array holds the mapping, so the memory is there for as long as anything looks at it. When
/// the block ends and the block's own variable is all that is left, which nobody needs any more,
/// that array is emptied in place, and so the mapping ends. If there are others, views or copies of
/// the reference, nothing is taken from under them: the mapping stays and a warning says so.
class view
{
public:
    /// Of `array`, with `warning` for what stays behind; None for no word about it.
    view(pybind11::object array, pybind11::object warning);

    /// The array. @throws ValueError behind the block.
    pybind11::object array() const;

    /// Ends it. @param depth Python frames between the block and this call.
    void leave(int depth);

private:
    pybind11::object m_array; // null behind the block
    pybind11::object m_warning;
};
} // namespace mempager::python

#endif
