// The fixed part of segment records.

#pragma once

#include <crrecord/SOmarshall.h>

namespace crrecord::python {

// Returns: the fixed part of a segment record in network order as host values.
_SegmentDBRecord ToHost(_SegmentDBRecord fields);

} // namespace crrecord::python
