// Iterators of Python over values that C++ makes.

#pragma once

#include "bindings.h"

#include <memory>

namespace crrecord::python {

class ValueSource {
public:
    virtual ~ValueSource() = default;
    // Returns: a new reference to the next value; null at the end, so that no C++ exception ends an iteration, which
    // takes microseconds.
    virtual PyObject* Next() = 0;
    virtual py::ssize_t Remaining() const noexcept = 0;
};

py::object IteratorOver(std::unique_ptr<ValueSource> source);

} // namespace crrecord::python
