// Readable values of fields.

#pragma once

#include "anatomy/sections.h"

#include <span>

#include <fmt/format.h>

namespace crrecord::tool {

// Appends one line of printable ASCII without quotes or backslashes. `bytes` is the whole field, stored in `order`.
void AppendValue(fmt::memory_buffer& to, Format format, std::span<unsigned char const> bytes, Order order);

// Appends the typed reference at the start of `bytes`, or reports that there is none.
// Returns: the bytes of the reference, or all bytes if there is none.
std::uint64_t AppendReference(fmt::memory_buffer& to, std::span<unsigned char const> bytes);

} // namespace crrecord::tool
