// Records without what identifies data.

#pragma once

#include "io/output.h"
#include "io/record_stream.h"
#include "redaction/pseudonyms.h"

namespace crrecord::tool {

// Writes a valid record, whose bytes are still as they were found and are used up, with pseudonyms in it and in
// canonical form; docs/command.md has what stays and what goes. Returns its size. Throws InputFailure where it would be
// larger than a record may be.
std::uint64_t WriteRedacted(OutputFile& to, std::string_view file, Record const& record, Pseudonyms& pseudonyms);

} // namespace crrecord::tool
