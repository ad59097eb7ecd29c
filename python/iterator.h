// Iterators of Python over values that C++ makes.

#pragma once

#include "bindings.h"

#include <memory>

namespace crrecord::python {

class ValueSource {
public:
    virtual ~ValueSource() = default;
    // Returns: the next value; an empty object at the end, so that no C++ exception ends an iteration, which takes
    // microseconds.
    virtual py::object Next() = 0;
    virtual py::ssize_t Remaining() const noexcept = 0;
};

py::object IteratorOver(std::unique_ptr<ValueSource> source);

} // namespace crrecord::python
