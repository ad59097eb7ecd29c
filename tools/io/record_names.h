// Names for the records of an input, which messages and tables show instead of the records' numbers.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace crrecord::tool {

struct NamedRecord {
    std::uint64_t offset; // in its input
    std::uint64_t bytes;
    std::string name;

    bool operator==(NamedRecord const&) const = default;
};

// Names the records of the command's only input. `records` are in the order of their offsets.
// Thread safety: call it before other threads start.
void NameRecords(std::vector<NamedRecord> records);

// Returns: the name of the record at `offset`; null without one.
std::string const* NameAt(std::uint64_t offset);

// Returns: the name of the record at `offset`, printable, or `noun` and the number without one: "record 3".
std::string LabelOf(std::uint64_t number, std::uint64_t offset, char const* noun = "record");

// Returns: the JSON member `name` of the record at `offset`, after a comma; empty without a name.
std::string JsonNameOf(std::uint64_t offset);

} // namespace crrecord::tool
