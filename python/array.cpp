// Arrays of numbers and fingerprints over the bytes of a record.

#include "array.h"

#include "base/byteorder.h"

#include <bit>
#include <cstring>

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

std::string FormatOf(std::vector<Field> const& fields, bool isStructure) {
    if (!isStructure) {
        return fields[0].content == Content::Bytes ? "B" : FormatOf(fields[0]);
    }
    std::string format = "T{";
    for (Field const& field : fields) {
        format += FormatOf(field) + ":" + field.name + ":";
    }
    return format + "}";
}

template <class Number, Order order>
py::object ReadNumber(unsigned char const* at, bool optional) {
    auto const number = Load<Number>(at, order);
    if (optional && number == static_cast<Number>(-1)) {
        return py::none();
    }
    return py::int_(number);
}

template <unsigned int width>
py::object ReadBytes(unsigned char const* at, bool) {
    return BytesOf(at, width);
}

FieldReader ReaderOf(Field const& field) {
    bool const isNetwork = field.content == Content::NetworkNumber;
    if (field.content == Content::Bytes) {
        return field.width == 16 ? ReadBytes<16> : ReadBytes<32>;
    }
    switch (field.width) {
    case 1: return ReadNumber<unsigned char, Order::Host>;
    case 4: return isNetwork ? ReadNumber<std::uint32_t, Order::Network> : ReadNumber<std::uint32_t, Order::Host>;
    default: return isNetwork ? ReadNumber<std::uint64_t, Order::Network> : ReadNumber<std::uint64_t, Order::Host>;
    }
}

std::shared_ptr<Element const> ElementOf(Field value) {
    value.position = 0;
    return std::make_shared<Element const>(std::vector<Field>{std::move(value)}, false);
}

} // namespace

Element::Element(std::vector<Field> of, bool structure)
    : fields(std::move(of)), firstReader(ReaderOf(fields[0])), isStructure(structure), width(0),
      format(FormatOf(fields, structure)) {
    for (Field const& field : fields) {
        width += field.width;
    }
}

Array::Array(std::shared_ptr<void const> owner, unsigned char const* first, unsigned long count, unsigned int stride,
             std::shared_ptr<Element const> element)
    : owner_(std::move(owner)), first_(first),
      element_(std::move(element)), shape_{static_cast<py::ssize_t>(count), element_->width}, strides_{stride, 1} {}

Array::Array(std::shared_ptr<void const> owner, unsigned char const* first, unsigned long count, unsigned int stride,
             Field const& value)
    : Array(std::move(owner), first + value.position, count, stride, ElementOf(value)) {}

py::object Element::readStructure(unsigned char const* at) const {
    py::tuple values(fields.size());
    py::ssize_t i = 0;
    for (Field const& field : fields) {
        PyTuple_SET_ITEM(values.ptr(), i++, ReaderOf(field)(at + field.position, field.optional).release().ptr());
    }
    return values;
}

Array Array::Part(py::ssize_t start, py::ssize_t step, py::ssize_t count) const {
    Array part = *this;
    part.first_ = count == 0 ? first_ : first_ + start * strides_[0];
    part.shape_[0] = count;
    part.strides_[0] = count <= 1 ? strides_[0] : strides_[0] * step;
    return part;
}

py::bytes Array::Packed() const {
    std::string packed;
    packed.reserve(static_cast<std::size_t>(Count() * element_->width));
    for (py::ssize_t i = 0; i < Count(); ++i) {
        for (Field const& field : element_->fields) {
            unsigned char const* const at = first_ + i * strides_[0] + field.position;
            packed.append(reinterpret_cast<char const*>(at), field.width);
        }
    }
    return packed;
}

int Array::Export(PyObject* self, Py_buffer* view, int flags) {
    auto const wants = [flags](int request) { return (flags & request) == request; };
    bool const wantsContiguous = !wants(PyBUF_STRIDES) || wants(PyBUF_C_CONTIGUOUS) || wants(PyBUF_ANY_CONTIGUOUS);
    char const* refusal = nullptr;
    if (wants(PyBUF_WRITABLE)) {
        refusal = "the bytes of a record are read-only";
    } else if (wantsContiguous && !isContiguous()) {
        refusal = "the elements are not contiguous";
    } else if (wants(PyBUF_F_CONTIGUOUS) && (dimensions() == 2 || !isContiguous())) {
        refusal = "the bytes are not in column-major order";
    }
    if (refusal) {
        PyErr_SetString(PyExc_BufferError, refusal);
        return -1;
    }
    view->buf = const_cast<unsigned char*>(first_);
    view->len = shape_[0] * element_->width;
    view->itemsize = dimensions() == 2 ? 1 : element_->width;
    view->readonly = 1;
    view->ndim = dimensions();
    view->format = wants(PyBUF_FORMAT) ? const_cast<char*>(element_->format.c_str()) : nullptr;
    view->shape = wants(PyBUF_ND) ? shape_ : nullptr;
    view->strides = wants(PyBUF_STRIDES) ? strides_ : nullptr;
    view->suboffsets = nullptr;
    view->internal = nullptr;
    view->obj = py::handle(self).inc_ref().ptr();
    return 0;
}

// The constructor of ndarray needs contiguous bytes, so it gets those from the lowest element to the highest one.
py::object Array::ToNumpy(py::object const& dtype) const {
    static auto const* const ndarray = new py::object(py::module_::import("numpy").attr("ndarray"));
    py::ssize_t const toLast = Count() == 0 ? 0 : (Count() - 1) * strides_[0];
    py::ssize_t const before = toLast < 0 ? -toLast : 0;
    py::ssize_t const span = Count() == 0 ? 0 : std::abs(toLast) + element_->width;
    Array const bytes(owner_, first_ - before, static_cast<unsigned long>(span), 1,
                      Field{"bytes", 0, 1, Content::HostNumber});
    if (dimensions() == 2) {
        return (*ndarray)(py::make_tuple(shape_[0], shape_[1]), dtype, bytes, before,
                          py::make_tuple(strides_[0], strides_[1]));
    }
    return (*ndarray)(py::make_tuple(shape_[0]), dtype, bytes, before, py::make_tuple(strides_[0]));
}

} // namespace crrecord::python
