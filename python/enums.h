// The enumerations of the package.

#pragma once

#include "bindings.h"

namespace crrecord::python {

// Return: the member with this number; the number itself if there is none.
py::object StatusMember(int status);
py::object FPTypeMember(unsigned int fptype);
py::object DOTypeMember(unsigned int dotype);
py::object ReferenceKindMember(int kind);

// For a module without BindEnums: StatusMember returns members of this type.
void UseStatuses(py::handle type);

} // namespace crrecord::python
