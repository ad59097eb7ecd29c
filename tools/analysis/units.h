// Numbers of bytes for people.

#pragma once

#include "io/failure.h"

#include <cstdint>
#include <iterator>
#include <string>

#include <fmt/format.h>

namespace crrecord::tool {

// "3038895 bytes (2.9 MiB)".
inline std::string WithUnit(std::uint64_t bytes) {
    constexpr char const* kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    auto scaled = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    for (; scaled >= 1024 && unit + 1 < std::size(kUnits); ++unit) {
        scaled /= 1024;
    }
    return bytes < 1024 ? Counted(bytes, "byte")
                        : fmt::format("{} ({:.1f} {})", Counted(bytes, "byte"), scaled, kUnits[unit]);
}

} // namespace crrecord::tool
