// Records without the values that identify data.

#pragma once

#include "io/output.h"
#include "io/record_stream.h"
#include "redaction/pseudonyms.h"

namespace crrecord::tool {

// Writes a valid record with pseudonyms and in canonical form. docs/command.md lists the values that are kept and
// replaced. The record is in the order in which it was read; its bytes are overwritten.
// Returns: the bytes written.
// Throws: InputFailure if the result would exceed the largest record.
std::uint64_t WriteRedacted(Output& to, std::string_view file, Record const& record, Pseudonyms& pseudonyms);

} // namespace crrecord::tool
