// Converts annotated text back to bytes.

#pragma once

#include "io/input.h"
#include "io/output.h"

#include <stdexcept>

namespace crrecord::tool {

// The text is not what annotate writes. what() has the line and the expected text.
struct BadText : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Writes the bytes of each line of bytes: an offset, two blanks, bytes of two digits with a blank between them, and
// then two blanks or the line's end. The offset of a line is the end of the line before it, that of the first line is
// 0. Lines that are empty or begin with '#', '!' or a blank have no bytes.
//
// Returns: the bytes written, at least one.
// Throws: BadText; InputFailure, also for a line of more than 64 KiB; Failure.
// Memory: two blocks of the length of the longest line.
std::uint64_t ReadBack(Input& text, OutputFile& to);

} // namespace crrecord::tool
