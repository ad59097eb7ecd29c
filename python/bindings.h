// The parts of the module, one per source file.

#pragma once

#include <pybind11/pybind11.h>

#include <initializer_list>
#include <type_traits>
#include <utility>

class DORecord;
class SORecord;

namespace crrecord::python {

namespace py = pybind11;

class Array;
class RecordIterator;
class SegmentSequence;
class SegmentSet;
class SegmentView;
class View;

void BindErrors(py::module_& module);
void BindEnums(py::module_& module);
void BindArray(py::module_& module);
void BindDiagnosis(py::module_& module);
void BindView(py::module_& module);
void BindSegmentView(py::module_& module);
void BindStream(py::module_& module);
void BindColumns(py::module_& module);
void BindReferences(py::module_& module);
void BindDORecord(py::module_& module);
void BindSORecord(py::module_& module);
void BindSegmentSet(py::module_& module);
void BindCluster(py::module_& module);

// Returns: a type of _types.py, the exception or a named tuple.
py::object PythonType(char const* name);

// Returns: a new named tuple. Its fields are set directly: the constructor of a named tuple is Python code and slow.
py::object FilledTuple(py::handle type, std::initializer_list<py::handle> fields);

template <class Value>
py::object ObjectOf(Value const& value) {
    if constexpr (std::is_base_of_v<py::object, Value>) {
        return value;
    } else {
        return py::cast(value);
    }
}

template <class... Values>
py::object MakeTuple(py::handle type, Values const&... values) {
    return FilledTuple(type, {ObjectOf(values)...});
}

// Returns: what __reduce__ returns, so that unpickling calls the function of the module with these arguments.
template <class... Values>
py::tuple PickleOf(char const* function, Values&&... values) {
    return py::make_tuple(PythonType("restore"), py::make_tuple(function, std::forward<Values>(values)...));
}

// Returns: ascii(object), cut if it is long.
std::string ShortRepr(py::handle object);

// Raises the exception of a pending signal, such as KeyboardInterrupt. For loops that run long without Python code.
inline void CheckSignals() {
    if (PyErr_CheckSignals() != 0) {
        throw py::error_already_set();
    }
}

// As above, in every 65536th of the calls with i = 0, 1, 2 and so on.
inline void CheckSignals(py::ssize_t i) {
    if ((i & 0xffff) == 0xffff) {
        CheckSignals();
    }
}

inline char const* NameOfOrder(bool networkOrder) noexcept {
    return networkOrder ? "network" : "host";
}

// Returns: true for "network". Raises ValueError for a text other than "host" and "network".
inline bool IsNetworkOrder(std::string const& order) {
    if (order != "host" && order != "network") {
        throw py::value_error("the order is 'host' or 'network'");
    }
    return order == "network";
}

inline py::bytes BytesOf(void const* bytes, unsigned long size) {
    return py::bytes(static_cast<char const*>(bytes), size);
}

} // namespace crrecord::python

namespace pybind11::detail {

// Rejects None and an object that __new__ made and __init__ did not complete. pybind11 would pass null or uninitialized
// memory to member functions.
template <class T>
class InitializedCaster : public type_caster_base<T> {
public:
    bool load(handle source, bool convert) {
        return type_caster_base<T>::load(source, convert) && this->value &&
               reinterpret_cast<instance*>(source.ptr())->get_value_and_holder(this->typeinfo).holder_constructed();
    }
};

template <>
class type_caster<DORecord> : public InitializedCaster<DORecord> {};
template <>
class type_caster<SORecord> : public InitializedCaster<SORecord> {};
template <>
class type_caster<crrecord::python::Array> : public InitializedCaster<crrecord::python::Array> {};
template <>
class type_caster<crrecord::python::RecordIterator> : public InitializedCaster<crrecord::python::RecordIterator> {};
template <>
class type_caster<crrecord::python::SegmentSequence> : public InitializedCaster<crrecord::python::SegmentSequence> {};
template <>
class type_caster<crrecord::python::SegmentSet> : public InitializedCaster<crrecord::python::SegmentSet> {};
template <>
class type_caster<crrecord::python::SegmentView> : public InitializedCaster<crrecord::python::SegmentView> {};
template <>
class type_caster<crrecord::python::View> : public InitializedCaster<crrecord::python::View> {};

} // namespace pybind11::detail

namespace crrecord::python {

// Returns: the object in `self`, or null if it is not initialized.
template <class T>
T* InitializedIn(py::handle self) {
    py::detail::make_caster<T> caster;
    return caster.load(self, false) ? py::detail::cast_op<T*>(caster) : nullptr;
}

// Adds __repr__, which returns text(object). It accepts uninitialized objects, since pybind11 calls it for the
// TypeError that rejects them.
template <class T, class... Options, class Text>
void BindRepr(py::class_<T, Options...>& type, Text text) {
    type.def("__repr__", [text](py::handle self) -> std::string {
        T const* const object = InitializedIn<T>(self);
        auto const name = py::cast<std::string>(py::type::handle_of(self).attr("__name__"));
        return object ? text(*object) : "<uninitialized " + name + ">";
    });
}

} // namespace crrecord::python
