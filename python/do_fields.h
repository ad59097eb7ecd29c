// Values of DO records as Python objects, for View and DORecord.

#pragma once

#include "bindings.h"

#include <crrecord/DORecord.h>

namespace crrecord::python {

// Both release the GIL for a large record. Other threads may change a record that is shared with Python code, so a copy
// of such a record is used then.

// Returns: a Digest, or None.
py::object DigestOf(DORecord const& record, bool isShared);

// For a record that is shared.

py::bytes SerializedForm(DORecord const& record, bool checksum);

// Returns: a dict of container to bytes.
py::dict ContainerSizesOf(DORecord const& record);

} // namespace crrecord::python
