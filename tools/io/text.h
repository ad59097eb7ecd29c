// Text for people.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace crrecord::tool {

// Text that stays on its line and leaves the terminal alone: control characters become '?'.
std::string Printable(std::string_view text);

// "1 record", "2 records".
std::string Counted(std::uint64_t count, std::string_view noun);

// A number of bytes in the largest binary unit of which there is one: "512 bytes", "1.5 MiB".
std::string InUnits(std::uint64_t bytes);

// The same behind the number itself: "512 bytes", "1572864 bytes (1.5 MiB)".
std::string WithUnit(std::uint64_t bytes);

// Colours only help the eye; every text says without them what it says.
enum class Colour { Good, Warning, Bad, Heading };

// The text in a colour where `coloured` says so.
std::string Painted(std::string_view text, Colour colour, bool coloured);

// Whether output on this file may be coloured: it is a terminal that knows colours, and NO_COLOR is not set.
bool TakesColours(int file);

} // namespace crrecord::tool
