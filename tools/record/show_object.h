// What a DO record says, for people and for programs.

#pragma once

#include "io/output.h"
#include "io/record_stream.h"

#include <crrecord/DORecordView.h>

#include <limits>

namespace crrecord::tool {

// Both ends are included.
struct Range {
    std::uint64_t first = 0;
    std::uint64_t last = std::numeric_limits<std::uint64_t>::max();
};

constexpr Range kFirstSegments{0, 19};

// Reads FROM:TO, where either may be missing, of numbers that begin with `least`. Throws CLI::ValidationError.
Range ParseRange(std::string const& option, std::string const& text, std::uint64_t least);

// "2024-01-01 00:00:00 UTC", or "never" for 0.
std::string TimeText(unsigned int seconds);

// Of a valid DO type.
char const* NameOfDOType(unsigned int dotype) noexcept;

// Header, containers, references and segments, or the bitmap's size. The record is as it was found.
void PrintObject(Output& out, Record const& record, DORecordView const& view, Range segments);

// The members of the JSON object, each with a comma in front.
void PrintObjectJson(Output& out, DORecordView const& view, Range segments);

} // namespace crrecord::tool
