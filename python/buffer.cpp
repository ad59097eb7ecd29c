// Buffers of Python objects, used in place.

#include "buffer.h"

#include <algorithm>
#include <string_view>

namespace crrecord::python {

namespace {

// Returns: true for bytes and read-only maps. The object of a read-only memoryview may be writable.
// Precondition: the buffer of the object is locked.
bool CannotChange(py::handle object) {
    while (PyMemoryView_Check(object.ptr())) {
        PyObject* const base = PyMemoryView_GET_BASE(object.ptr());
        if (!base) {
            return false;
        }
        object = base;
    }
    if (PyBytes_CheckExact(object.ptr())) {
        return true;
    }
    if (!py::type::handle_of(object).is(py::module_::import("mmap").attr("mmap"))) {
        return false;
    }
    Py_buffer writable;
    if (PyObject_GetBuffer(object.ptr(), &writable, PyBUF_WRITABLE) == 0) {
        PyBuffer_Release(&writable);
        return false;
    }
    PyErr_Clear();
    return true;
}

// Names of fields in a format are between colons.
bool HasObjects(std::string_view format) {
    bool isName = false;
    return std::any_of(format.begin(), format.end(), [&](char c) {
        isName = isName != (c == ':');
        return c == 'O' && !isName;
    });
}

} // namespace

// Locks first: a memoryview that was released still has the address of its object, which may be gone.
PinnedBuffer::PinnedBuffer(py::handle object) : PinnedBuffer() {
    if (PyObject_GetBuffer(object.ptr(), &buffer_, PyBUF_ND | PyBUF_FORMAT) != 0) {
        throw py::error_already_set();
    }
    immutable_ = CannotChange(object);
    if (HasObjects(Format())) {
        throw py::type_error("an array of Python objects has no bytes of records");
    }
}

unsigned char const* PinnedBuffer::Data() const noexcept {
    static unsigned char const nothing[1] = {};
    return buffer_.buf ? static_cast<unsigned char const*>(buffer_.buf) : nothing;
}

} // namespace crrecord::python
