// Arrays of numbers and fingerprints over the bytes of a record.

#pragma once

#include "buffer.h"

#include <string>
#include <vector>

namespace crrecord::python {

enum class Content { HostNumber, NetworkNumber, Bytes };

inline Content NumberIn(bool networkOrder) noexcept {
    return networkOrder ? Content::NetworkNumber : Content::HostNumber;
}

// A field of an element. Numbers are 1, 4 or 8 bytes wide and not aligned.
struct Field {
    char const* name;
    unsigned int position;
    unsigned int width;
    Content content;
};

// A sequence of `count` elements, `stride` bytes apart. Exports the buffer protocol with one dimension, or with two for
// elements of bytes, for which memoryviews and NumPy have no suitable scalar.
class Array {
public:
    Array(SharedBuffer owner, unsigned char const* first, unsigned long count, unsigned int stride,
          std::vector<Field> fields);

    py::ssize_t Count() const noexcept { return shape_[0]; }
    // Returns: the number or bytes of an element, or a tuple if it has several fields.
    py::object Read(py::ssize_t i) const;
    py::object Item(py::ssize_t i) const; // a negative index counts from the end; raises IndexError
    Array Part(py::slice const& slice) const;
    py::list ToList() const;
    std::string const& Format() const noexcept { return format_; }

    // The buffer protocol.
    int Export(PyObject* self, Py_buffer* view, int flags);

private:
    py::object readField(unsigned char const* element, Field const& field) const;
    bool isContiguous() const noexcept { return shape_[0] <= 1 || strides_[0] == width_; }

    SharedBuffer owner_;
    unsigned char const* first_;
    std::vector<Field> fields_;
    std::string format_;
    py::ssize_t width_; // bytes of the fields of an element
    int dimensions_;
    py::ssize_t shape_[2];
    py::ssize_t strides_[2];
};

} // namespace crrecord::python
