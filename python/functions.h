// The functions of the module as Python code sees them.

#pragma once

#include "bindings.h"

namespace crrecord::python {

// Gives all functions, methods and properties of the module text signatures, short TypeErrors, and reasons of failures
// that come from the same call. Call it after everything is bound.
void FinishFunctions(py::module_& module);

} // namespace crrecord::python
