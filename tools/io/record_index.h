// Positions of records in a file, so that it can be read in parts.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace crrecord::tool {

struct RecordPosition {
    std::uint64_t offset;
    std::uint64_t number;
};

// Returns: the first record of a regular file, and of the others the first one about every `step` bytes. The parts of
// the file that start there have the records that a RecordStream of the whole file has, unless it scans.
//
// Reads headers only, and skips the rest of large records. Throws: InputFailure.
std::vector<RecordPosition> IndexOf(std::string const& name, std::string const& path, std::uint64_t step);

} // namespace crrecord::tool
