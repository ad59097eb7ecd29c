// The index of a file of records: a line of JSON with the place and the name of each record.

#pragma once

#include "io/output.h"
#include "io/record_names.h"

namespace crrecord::tool::json {

// Writes a line.
void WriteName(Output& out, NamedRecord const& record);

// Returns: the lines of an index, with ascending offsets. Names are not empty and have no NUL. "-" is standard input.
// Throws: InputFailure for an index that cannot be read and for a line in another form.
// Memory: 48 bytes and the name for each line, and 64 KiB.
std::vector<NamedRecord> ReadNames(std::string const& index);

} // namespace crrecord::tool::json
