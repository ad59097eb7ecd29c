// The parts of the module, one per source file.

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

// Returns: a type of _types.py, the exception or a named tuple.
py::object PythonType(char const* name);

// Returns: a new object of a type of _types.py.
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
