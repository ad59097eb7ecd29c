// Arrays of numbers and fingerprints over the bytes of a record.

#pragma once

#include "buffer.h"

#include <memory>
#include <string>
#include <vector>

namespace crrecord::python {

enum class Content { HostNumber, NetworkNumber, Bytes };

inline Content NumberIn(bool networkOrder) noexcept {
    return networkOrder ? Content::NetworkNumber : Content::HostNumber;
}

// A field of an element. Numbers are 1, 4 or 8 bytes wide and not aligned.
struct Field {
    std::string name;
    unsigned int position;
    unsigned int width;
    Content content;
    bool optional = false; // a number of one bits is None
};

// Returns: the value of a field that is stored at `at`.
using FieldReader = py::object (*)(unsigned char const* at, bool optional);

// What an element is: one value, or a structure of fields, of which Python code sees a tuple.
struct Element {
    Element(std::vector<Field> fields, bool isStructure);

    // Elements of bytes have two dimensions, since memoryviews and NumPy have no suitable scalar.
    bool IsBytes() const noexcept { return !isStructure && fields[0].content == Content::Bytes; }

    py::object Read(unsigned char const* at) const {
        return isStructure ? readStructure(at) : firstReader(at + fields[0].position, fields[0].optional);
    }

    std::vector<Field> fields;
    FieldReader firstReader;
    bool isStructure;
    py::ssize_t width; // bytes of the fields
    std::string format;

private:
    py::object readStructure(unsigned char const* at) const;
};

// A sequence of `count` elements, `stride` bytes apart. Exports the buffer protocol.
class Array {
public:
    // `owner` keeps the bytes.
    Array(std::shared_ptr<void const> owner, unsigned char const* first, unsigned long count, unsigned int stride,
          std::shared_ptr<Element const> element);
    // An array of values.
    Array(std::shared_ptr<void const> owner, unsigned char const* first, unsigned long count, unsigned int stride,
          Field const& value);

    py::ssize_t Count() const noexcept { return shape_[0]; }
    Element const& ElementType() const noexcept { return *element_; }
    py::object Read(py::ssize_t i) const { return element_->Read(first_ + i * strides_[0]); }
    Array Part(py::ssize_t start, py::ssize_t step, py::ssize_t count) const;
    // Returns: the elements without gaps.
    py::bytes Packed() const;

    // The buffer protocol.
    int Export(PyObject* self, Py_buffer* view, int flags);
    // Returns: an array of NumPy over the same bytes, faster than NumPy reads a format.
    py::object ToNumpy(py::object const& dtype) const;

private:
    int dimensions() const noexcept { return element_->IsBytes() ? 2 : 1; }
    bool isContiguous() const noexcept { return shape_[0] <= 1 || strides_[0] == element_->width; }

    std::shared_ptr<void const> owner_;
    unsigned char const* first_;
    std::shared_ptr<Element const> element_;
    py::ssize_t shape_[2];
    py::ssize_t strides_[2];
};

} // namespace crrecord::python
