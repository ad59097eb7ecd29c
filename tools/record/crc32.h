// CRC-32 of data in parts, and of zeros that are not read.

#pragma once

#include <cstdint>

#include <zlib.h>

namespace crrecord::tool {

// Returns: the CRC-32 of two parts from those of the parts. `bytes` is the size of the second one.
inline std::uint32_t CombinedCrc(std::uint32_t crc, std::uint32_t next, std::uint64_t bytes) {
    return static_cast<std::uint32_t>(crc32_combine(crc, next, static_cast<z_off_t>(bytes)));
}

// Returns: the CRC-32 after so many zeros follow. CRC-32 complements its state at both ends; in between, zeros only
// shift it.
inline std::uint32_t CrcAfterZeros(std::uint32_t crc, std::uint64_t bytes) {
    return ~CombinedCrc(~crc, 0, bytes);
}

} // namespace crrecord::tool
