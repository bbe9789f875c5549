// What the package mempager is made of: memory, its mappings, and what concerns the process. The
// Python sources beside it make pieces and arrays of that.
#include "call.h"
#include "log.h"
#include "memory.h"
#include "settings.h"
#include "view.h"

#include "mempager_version.h"

#include <memory>
#include <optional>
#include <string_view>

namespace py = pybind11;

namespace mempager::python
{
namespace
{
int get_buffer(PyObject* self, Py_buffer* out, int flags)
{
    const auto& bytes = py::handle(self).cast<const mapping&>();
    return PyBuffer_FillInfo(out, self, bytes.data(), Py_ssize_t(bytes.size()), bytes.readonly(),
                             flags);
}

void give_buffer(PyHeapTypeObject* type)
{
    type->as_buffer.bf_getbuffer = &get_buffer;
}

std::shared_ptr<memory> make(std::uint64_t bytes, bool zeros)
{
    return unlocked([=] { return std::make_shared<memory>(bytes, zeros); });
}

std::shared_ptr<memory> open(const py::bytes& descriptor, std::uint64_t bytes)
{
    const std::string_view text = descriptor;
    const auto found = std::as_bytes(std::span(text));
    return unlocked([=] { return std::make_shared<memory>(found, bytes); });
}

std::shared_ptr<mapping> map(memory& of, bool readonly)
{
    return unlocked([&] { return of.map(readonly); });
}

py::bytes descriptor(const memory& of)
{
    return unlocked([&] { return of.descriptor(); });
}

void add_memory(py::module_& module)
{
    py::class_<memory, std::shared_ptr<memory>>(module, "Memory", py::dynamic_attr())
        .def(py::init(&make), py::arg("bytes"), py::arg("zeros"))
        .def_static("open", &open, py::arg("descriptor"), py::arg("bytes"))
        .def("map", &map, py::arg("readonly") = false, py::keep_alive<0, 1>())
        .def("alias", [](memory& of) { return std::make_shared<memory>(of.shared_from_this()); })
        .def("descriptor", &descriptor)
        .def_property_readonly("size", &memory::size)
        .def_property_readonly("is_foreign", &memory::is_foreign)
        .def_property_readonly("mappings", &memory::mappings);
    py::class_<mapping, std::shared_ptr<mapping>>(module, "Mapping", py::buffer_protocol(),
                                                  py::custom_type_setup(&give_buffer));
}

void add_view(py::module_& module)
{
    py::class_<view>(module, "View", "An array on a mapping, for a `with` block: see Piece.map().")
        .def(py::init<py::object, py::object>(), py::arg("array"), py::arg("warning"))
        .def_property_readonly("array", &view::array, "The array; ValueError behind the block.")
        .def("__enter__", &view::array)
        .def("leave", &view::leave, py::arg("depth") = 0)
        .def("__exit__", [](view& self, const py::args&) { self.leave(0); });
}

void add_log(py::module_& module)
{
    module.def("listen", &log::listen);
    module.def("flush_log", &deliver_log);
    module.def("forget_log", &log::forget);
}

PYBIND11_MODULE(_core, module)
{
    module.doc() = "The compiled part of mempager; import mempager instead.";
    translate_errors();
    add_memory(module);
    add_view(module);
    add_process(module);
    add_log(module);
    module.attr("version") = MEMPAGER_VERSION_STRING;
}
} // namespace
} // namespace mempager::python
