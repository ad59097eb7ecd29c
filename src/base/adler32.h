// Adler-32 (RFC 1950): the checksum of unique DCID lists and exchange forms.

#pragma once

#include <cstdint>

#include <libdeflate.h>

namespace crrecord {

// The checksum of no bytes.
inline constexpr std::uint32_t kAdler32Start = 1;

inline std::uint32_t Adler32(void const* bytes, std::uint64_t size) noexcept {
    return libdeflate_adler32(kAdler32Start, bytes, size);
}

// The checksum of bytes that follow those that gave `before`.
inline std::uint32_t Adler32More(std::uint32_t before, void const* bytes, std::uint64_t size) noexcept {
    return libdeflate_adler32(before, bytes, size);
}

} // namespace crrecord
