// Segment records as a store has them: of one segment in a container.

#pragma once

#include "io/record_stream.h"

#include <string>

namespace crrecord::tool {

// Returns: the first error of a segment record, or of a record of no known kind, with its place; empty if there is
// none. A valid segment record must have file id 0 and one fingerprint.
std::string SegmentRecordError(std::string const& file, Record const& record);

// The first error of a record that is not valid, with its place.
std::string FirstErrorOf(std::string const& file, Record const& record);

// The error of a record whose sizes would make a sum exceed kMostClaimed.
std::string ClaimError(std::string const& file, Record const& record);

} // namespace crrecord::tool
