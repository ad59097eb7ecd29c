// Numbers and fingerprints of a record as an array over the record's own bytes.

#pragma once

#include "buffer.h"

#include <string>
#include <vector>

namespace crrecord::python {

enum class Content { HostNumber, NetworkNumber, Bytes };

inline Content NumberIn(bool networkOrder) noexcept {
    return networkOrder ? Content::NetworkNumber : Content::HostNumber;
}

// A part of an element; numbers are 1, 4 or 8 bytes wide and have no alignment.
struct Field {
    char const* name;
    unsigned int position;
    unsigned int width;
    Content content;
};

// A sequence of `count` elements, `stride` bytes from one to the next, and an exporter of them through the buffer
// protocol: one dimension; two for bytes, of which memoryviews and NumPy have no good scalar.
class Array {
public:
    Array(SharedBuffer owner, unsigned char const* first, unsigned long count, unsigned int stride,
          std::vector<Field> fields);

    py::ssize_t Count() const noexcept { return shape_[0]; }
    // Of an element: its number or bytes, or a tuple where it has several fields.
    py::object Read(py::ssize_t i) const;
    py::object Item(py::ssize_t i) const; // from the end where negative; raises IndexError
    Array Part(py::slice const& slice) const;
    py::list ToList() const;
    std::string const& Format() const noexcept { return format_; }

    // Of the buffer protocol.
    int Export(PyObject* self, Py_buffer* view, int flags);

private:
    py::object readField(unsigned char const* element, Field const& field) const;
    bool isContiguous() const noexcept { return shape_[0] <= 1 || strides_[0] == width_; }

    SharedBuffer owner_;
    unsigned char const* first_;
    std::vector<Field> fields_;
    std::string format_;
    py::ssize_t width_; // bytes of an element's fields
    int dimensions_;
    py::ssize_t shape_[2];
    py::ssize_t strides_[2];
};

} // namespace crrecord::python
