// Arrays of numbers and fingerprints over the bytes of a record.

#include "array.h"

#include "base/byteorder.h"

#include <bit>

namespace crrecord::python {

namespace {

// The format of the struct module and PEP 3118. With an explicit byte order, fields are not aligned.
std::string FormatOf(Field const& field) {
    if (field.content == Content::Bytes) {
        return "(" + std::to_string(field.width) + ")B";
    }
    if (field.width == 1) {
        return "B";
    }
    bool const bigEndian = field.content == Content::NetworkNumber || std::endian::native == std::endian::big;
    return std::string(bigEndian ? ">" : "<") + (field.width == 4 ? "I" : "Q");
}

std::string FormatOf(std::vector<Field> const& fields) {
    if (fields.size() == 1) {
        return fields[0].content == Content::Bytes ? "B" : FormatOf(fields[0]);
    }
    std::string format = "T{";
    for (Field const& field : fields) {
        format += FormatOf(field) + ":" + field.name + ":";
    }
    return format + "}";
}

int GetBuffer(PyObject* self, Py_buffer* view, int flags) noexcept {
    view->obj = nullptr;
    try {
        return py::cast<Array&>(py::handle(self)).Export(self, view, flags);
    } catch (std::exception const& error) {
        PyErr_SetString(PyExc_BufferError, error.what());
        return -1;
    }
}

} // namespace

Array::Array(SharedBuffer owner, unsigned char const* first, unsigned long count, unsigned int stride,
             std::vector<Field> fields)
    : owner_(std::move(owner)), first_(first), fields_(std::move(fields)), format_(FormatOf(fields_)), width_(0),
      dimensions_(1) {
    for (Field const& field : fields_) {
        width_ += field.width;
    }
    shape_[0] = static_cast<py::ssize_t>(count);
    shape_[1] = width_;
    strides_[0] = stride;
    strides_[1] = 1;
    if (fields_.size() == 1 && fields_[0].content == Content::Bytes) {
        dimensions_ = 2;
    }
}

py::object Array::readField(unsigned char const* element, Field const& field) const {
    unsigned char const* const at = element + field.position;
    if (field.content == Content::Bytes) {
        return BytesOf(at, field.width);
    }
    Order const order = field.content == Content::NetworkNumber ? Order::Network : Order::Host;
    switch (field.width) {
    case 1: return py::int_(*at);
    case 4: return py::int_(Load<std::uint32_t>(at, order));
    default: return py::int_(Load<std::uint64_t>(at, order));
    }
}

py::object Array::Read(py::ssize_t i) const {
    unsigned char const* const element = first_ + i * strides_[0];
    if (fields_.size() == 1) {
        return readField(element, fields_[0]);
    }
    py::tuple values(fields_.size());
    for (std::size_t f = 0; f < fields_.size(); ++f) {
        values[f] = readField(element, fields_[f]);
    }
    return values;
}

py::object Array::Item(py::ssize_t i) const {
    py::ssize_t const index = i < 0 ? i + Count() : i;
    if (index < 0 || index >= Count()) {
        throw py::index_error("index out of range");
    }
    return Read(index);
}

Array Array::Part(py::slice const& slice) const {
    py::ssize_t start = 0, stop = 0, step = 0, count = 0;
    if (!slice.compute(Count(), &start, &stop, &step, &count)) {
        throw py::error_already_set();
    }
    Array part = *this;
    part.first_ = count == 0 ? first_ : first_ + start * strides_[0];
    part.shape_[0] = count;
    part.strides_[0] = count <= 1 ? strides_[0] : strides_[0] * step;
    return part;
}

py::list Array::ToList() const {
    py::list values(static_cast<std::size_t>(Count()));
    for (py::ssize_t i = 0; i < Count(); ++i) {
        values[static_cast<std::size_t>(i)] = Read(i);
    }
    return values;
}

int Array::Export(PyObject* self, Py_buffer* view, int flags) {
    auto const wants = [flags](int request) { return (flags & request) == request; };
    bool const wantsContiguous = !wants(PyBUF_STRIDES) || wants(PyBUF_C_CONTIGUOUS) || wants(PyBUF_ANY_CONTIGUOUS);
    char const* refusal = nullptr;
    if (wants(PyBUF_WRITABLE)) {
        refusal = "the bytes of a record are read-only";
    } else if (wantsContiguous && !isContiguous()) {
        refusal = "the elements are not contiguous";
    } else if (wants(PyBUF_F_CONTIGUOUS) && (dimensions_ == 2 || !isContiguous())) {
        refusal = "the bytes are not in column-major order";
    }
    if (refusal) {
        PyErr_SetString(PyExc_BufferError, refusal);
        return -1;
    }
    view->buf = const_cast<unsigned char*>(first_ + (fields_.size() == 1 ? fields_[0].position : 0));
    view->len = shape_[0] * width_;
    view->itemsize = dimensions_ == 2 ? 1 : width_;
    view->readonly = 1;
    view->ndim = dimensions_;
    view->format = wants(PyBUF_FORMAT) ? format_.data() : nullptr;
    view->shape = wants(PyBUF_ND) ? shape_ : nullptr;
    view->strides = wants(PyBUF_STRIDES) ? strides_ : nullptr;
    view->suboffsets = nullptr;
    view->internal = nullptr;
    view->obj = py::handle(self).inc_ref().ptr();
    return 0;
}

void BindArray(py::module_& module) {
    py::class_<Array>(module, "Array", py::custom_type_setup([](PyHeapTypeObject* type) {
                          type->as_buffer.bf_getbuffer = GetBuffer;
                          type->ht_type.tp_as_buffer = &type->as_buffer;
                      }),
                      "A sequence of numbers or fingerprints over the bytes of a record.\n\n"
                      "It exports the buffer protocol, so numpy.asarray(array) copies nothing.")
        .def("__len__", &Array::Count)
        .def("__iter__",
             [](py::object const& self) {
                 PyObject* const iterator = PySeqIter_New(self.ptr());
                 if (!iterator) {
                     throw py::error_already_set();
                 }
                 return py::reinterpret_steal<py::iterator>(iterator);
             })
        .def("__getitem__", &Array::Item)
        .def("__getitem__", &Array::Part)
        .def("tolist", &Array::ToList, "Return all elements as a list.")
        .def_property_readonly("format", &Array::Format, "The format of an element, as in PEP 3118.")
        .def("__repr__", [](Array const& array) {
            return "<crrecord.Array of " + std::to_string(array.Count()) + " '" + array.Format() + "'>";
        });
}

} // namespace crrecord::python
