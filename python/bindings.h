// The parts of the module, each in a file of its own.

#pragma once

#include <pybind11/pybind11.h>

namespace crrecord::python {

namespace py = pybind11;

void BindErrors(py::module_& module);
void BindArray(py::module_& module);
void BindDiagnosis(py::module_& module);
void BindView(py::module_& module);
void BindSegmentView(py::module_& module);
void BindStream(py::module_& module);
void BindReferences(py::module_& module);
void BindDORecord(py::module_& module);
void BindSORecord(py::module_& module);

// The types that are written in Python (_types.py): exception and named tuples.
py::object PythonType(char const* name);

// A named tuple of such a type.
template <class... Values>
py::object MakeTuple(char const* type, Values&&... values) {
    return PythonType(type)(std::forward<Values>(values)...);
}

inline char const* NameOfOrder(bool networkOrder) noexcept {
    return networkOrder ? "network" : "host";
}

inline py::bytes BytesOf(void const* bytes, unsigned long size) {
    return py::bytes(static_cast<char const*>(bytes), size);
}

} // namespace crrecord::python
