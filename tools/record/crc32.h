// Arithmetic on CRC-32 values, as of gzip, without the bytes that they are of.

#pragma once

#include <cstdint>

namespace crrecord::tool {

namespace crc32 {

// Polynomials over the field of two elements modulo that of CRC-32; the coefficient of x^0 is the highest bit.
constexpr std::uint32_t Multiply(std::uint32_t a, std::uint32_t b) noexcept {
    constexpr std::uint32_t kPolynomial = 0xedb88320;
    std::uint32_t product = 0;
    for (; a != 0; a <<= 1) {
        product ^= (a >> 31) * b;
        b = (b >> 1) ^ (b & 1) * kPolynomial;
    }
    return product;
}

// A polynomial times x^(8 * bytes).
constexpr std::uint32_t Shifted(std::uint32_t polynomial, std::uint64_t bytes) noexcept {
    constexpr std::uint32_t kOneByte = 1U << (31 - 8); // x^8
    for (std::uint32_t factor = kOneByte; bytes != 0; bytes >>= 1, factor = Multiply(factor, factor)) {
        polynomial = (bytes & 1) != 0 ? Multiply(polynomial, factor) : polynomial;
    }
    return polynomial;
}

} // namespace crc32

// The CRC-32 of what `crc` is of and so many zero bytes behind it.
constexpr std::uint32_t AppendZeros(std::uint32_t crc, std::uint64_t bytes) noexcept {
    return ~crc32::Shifted(~crc, bytes);
}
static_assert(AppendZeros(0, 1) == 0xd202ef8d);

// The CRC-32 of what `crc` is of and what `next` is of, `bytes` long, behind it.
constexpr std::uint32_t AppendCrc32(std::uint32_t crc, std::uint32_t next, std::uint64_t bytes) noexcept {
    return crc32::Shifted(crc, bytes) ^ next;
}
static_assert(AppendCrc32(0xd202ef8d, 0xd202ef8d, 1) == AppendZeros(0, 2));

} // namespace crrecord::tool
