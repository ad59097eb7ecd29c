// What the bytes of a field say, for people.

#pragma once

#include "anatomy/sections.h"

#include <span>

#include <fmt/format.h>

namespace crrecord::tool {

// Appends one line of printable ASCII without quotes or backslashes. All bytes of the field are there; `order` is that
// in which they are stored.
void AppendValue(fmt::memory_buffer& to, Format format, std::span<unsigned char const> bytes, Order order);

// Appends the typed reference with which the bytes begin, or says that they are none. Returns the bytes that it takes,
// which are all of those that are none.
std::uint64_t AppendReference(fmt::memory_buffer& to, std::span<unsigned char const> bytes);

// Appends two lower-case digits for each byte.
void AppendDigits(fmt::memory_buffer& to, std::span<unsigned char const> bytes);

} // namespace crrecord::tool
