#ifndef MEMPAGER_PYTHON_SETTINGS_H
#define MEMPAGER_PYTHON_SETTINGS_H

#include <pybind11/pybind11.h>

namespace mempager::python
{
/// Adds what concerns the whole process: its accounting, its cache and its configuration.
void add_process(pybind11::module_& module);
} // namespace mempager::python

#endif
