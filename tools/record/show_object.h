// The content of a DO record as text.

#pragma once

#include "io/output.h"
#include "record/do_record.h"

namespace crrecord::tool {

constexpr Range kFirstSegments{0, 19};
constexpr Range kNoSegments{1, 0};

// Reads N, or FROM:TO, of which either may be missing, of numbers counted from `least`. Throws: CLI::ValidationError.
Range ParseRange(std::string const& option, std::string const& text, std::uint64_t least);

// "2024-01-01 00:00:00 UTC", or "never" for 0.
std::string TimeText(unsigned int seconds);

// "0000beef", "0x0002".
std::string CrcText(unsigned int crc);
std::string FlagsText(unsigned int flags);

// The name of a valid DO type.
char const* NameOfDOType(unsigned int dotype) noexcept;

// Prints the header, containers, references and segments, or the bitmap's size. The record is as it was read.
void PrintObject(Output& out, Record const& record, DORecordView const& view, Range segments);

} // namespace crrecord::tool
