// Array as a Python class: a sequence that exports the buffer protocol, for NumPy, and can be pickled.

#include "array.h"
#include "sequence.h"

#include <pybind11/stl.h>

#include <tuple>

namespace crrecord::python {

namespace {

int GetBuffer(PyObject* self, Py_buffer* view, int flags) noexcept {
    view->obj = nullptr;
    auto* const array = InitializedIn<Array>(self);
    if (!array) {
        PyErr_SetString(PyExc_BufferError, "uninitialized array");
        return -1;
    }
    return array->Export(self, view, flags);
}

// NumPy takes ten microseconds to read the format of a structure, so each format is read once.
py::object DtypeOf(Array const& array) {
    static auto const* const dtypes = new py::dict();
    py::str const format(array.ElementType().format);
    if (!dtypes->contains(format)) {
        (*dtypes)[format] = py::module_::import("numpy").attr("asarray")(array.Part(0, 1, 0)).attr("dtype");
    }
    return (*dtypes)[format];
}

// Name, width, content and whether all one bits are None.
using FieldState = std::tuple<std::string, unsigned int, int, bool>;

py::object ReduceArray(Array const& array) {
    std::vector<FieldState> fields;
    for (Field const& field : array.ElementType().fields) {
        fields.emplace_back(field.name, field.width, static_cast<int>(field.content), field.optional);
    }
    return PickleOf("_array", array.Packed(), fields, array.ElementType().isStructure);
}

Field FieldOf(FieldState const& state, unsigned int position) {
    auto const& [name, width, content, optional] = state;
    bool const isBytes = content == static_cast<int>(Content::Bytes);
    bool const isNumber =
        content == static_cast<int>(Content::HostNumber) || content == static_cast<int>(Content::NetworkNumber);
    if (!(isBytes && (width == 16 || width == 32)) && !(isNumber && (width == 1 || width == 4 || width == 8))) {
        throw py::value_error("not a field of an array");
    }
    return {name, position, width, static_cast<Content>(content), optional};
}

Array RestoreArray(py::bytes const& bytes, std::vector<FieldState> const& states, bool isStructure) {
    std::vector<Field> fields;
    unsigned int width = 0;
    for (FieldState const& state : states) {
        fields.push_back(FieldOf(state, width));
        width += fields.back().width;
    }
    Slice const packed = PinWhole(bytes);
    constexpr std::size_t kMostFields = 3;
    if (fields.empty() || fields.size() > (isStructure ? kMostFields : 1) || packed.size % width != 0) {
        throw py::value_error("not the bytes of an array");
    }
    return Array(packed.owner, packed.Data(), packed.size / width, width,
                 std::make_shared<Element const>(std::move(fields), isStructure));
}

} // namespace

void BindArray(py::module_& module) {
    py::class_<Array> type(module, "Array", py::custom_type_setup([](PyHeapTypeObject* made) {
                               made->as_buffer.bf_getbuffer = GetBuffer;
                               made->ht_type.tp_as_buffer = &made->as_buffer;
                           }),
                           "A sequence of numbers or fingerprints over the bytes of a record.\n\n"
                           "It exports the buffer protocol, so numpy.asarray(array) copies nothing.");
    BindSequence(type);
    type.def(
            "tolist", [](py::object const& self) { return py::list(self); }, "Return all elements as a list.")
        .def(
            "to_numpy", [](Array const& array) { return array.ToNumpy(DtypeOf(array)); },
            "Return a read-only NumPy array over the same bytes, as numpy.asarray, but faster for structures.")
        .def_property_readonly("dtype", DtypeOf, "The NumPy dtype of an element.")
        .def_property_readonly(
            "format", [](Array const& array) { return array.ElementType().format; },
            "The format of an element, as in PEP 3118.")
        .def("__reduce__", ReduceArray);
    BindRepr(type, [](Array const& array) {
        return "<crrecord.Array of " + std::to_string(array.Count()) + " '" + array.ElementType().format + "'>";
    });
    module.def("_array", RestoreArray, py::arg("packed"), py::arg("fields"), py::arg("is_structure"));
}

} // namespace crrecord::python
