// Conversion of fingerprint bytes to lower-case hexadecimal text and back, without a branch per character.
//
// Encode16 and Decode16 convert 16 bytes: a short fingerprint or half of a long one. The SSE2 version (SSE2 is part of
// x86-64) and the portable version return the same results; `hex` names the one that is used. SSE2 is 3 to 5
// times as fast as the portable version.

#pragma once

#include "base/byteorder.h"

#include <cstdint>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace crrecord {

namespace portable {

// Converts eight nibbles, one per byte, to eight characters: '0' + n, plus 39 ('a' - '0' - 10) from 10 on.
constexpr std::uint64_t NibblesToText(std::uint64_t nibbles) noexcept {
    std::uint64_t const letters = ((nibbles + 0x0606060606060606) >> 4) & 0x0101010101010101;
    return nibbles + 0x3030303030303030 + letters * 39;
}

inline void Encode4(unsigned char const* bytes, char* text) noexcept {
    std::uint64_t nibbles = Load<std::uint32_t>(bytes, Order::Network);
    nibbles = (nibbles | nibbles << 16) & 0x0000ffff0000ffff;
    nibbles = (nibbles | nibbles << 8) & 0x00ff00ff00ff00ff;
    nibbles = (nibbles | nibbles << 4) & 0x0f0f0f0f0f0f0f0f;
    Store(text, NibblesToText(nibbles), Order::Network);
}

// Letters have bit 6 set, digits don't. The text is valid if each value is a nibble and encodes to the same character.
inline bool Decode4(char const* text, unsigned char* bytes) noexcept {
    std::uint64_t const characters = Load<std::uint64_t>(text, Order::Network);
    std::uint64_t const letters = (characters >> 6) & 0x0101010101010101;
    std::uint64_t const values = (characters & 0x0f0f0f0f0f0f0f0f) + letters * 9;
    bool const good = (values & 0xf0f0f0f0f0f0f0f0) == 0 && NibblesToText(values) == characters;
    std::uint64_t pairs = (values | values >> 4) & 0x00ff00ff00ff00ff;
    pairs = (pairs | pairs >> 8) & 0x0000ffff0000ffff;
    pairs = (pairs | pairs >> 16) & 0x00000000ffffffff;
    Store(bytes, static_cast<std::uint32_t>(pairs), Order::Network);
    return good;
}

inline void Encode16(unsigned char const* bytes, char* text) noexcept {
    for (std::size_t i = 0; i < 4; ++i) {
        Encode4(bytes + 4 * i, text + 8 * i);
    }
}

inline bool Decode16(char const* text, unsigned char* bytes) noexcept {
    bool good = true;
    for (std::size_t i = 0; i < 4; ++i) {
        good &= Decode4(text + 8 * i, bytes + 4 * i);
    }
    return good;
}

} // namespace portable

#if defined(__SSE2__)
namespace sse2 {

inline __m128i NibblesToText(__m128i nibbles) noexcept {
    __m128i const letters = _mm_cmpgt_epi8(nibbles, _mm_set1_epi8(9));
    return _mm_add_epi8(_mm_add_epi8(nibbles, _mm_set1_epi8('0')),
                        _mm_and_si128(letters, _mm_set1_epi8('a' - '0' - 10)));
}

inline void Encode16(unsigned char const* bytes, char* text) noexcept {
    __m128i const low = _mm_set1_epi8(0x0f);
    __m128i const value = _mm_loadu_si128(reinterpret_cast<__m128i const*>(bytes));
    __m128i const high4 = _mm_and_si128(_mm_srli_epi16(value, 4), low);
    __m128i const low4 = _mm_and_si128(value, low);
    __m128i* const to = reinterpret_cast<__m128i*>(text);
    _mm_storeu_si128(to, NibblesToText(_mm_unpacklo_epi8(high4, low4)));
    _mm_storeu_si128(to + 1, NibblesToText(_mm_unpackhi_epi8(high4, low4)));
}

inline __m128i Between(__m128i characters, char first, char last) noexcept {
    return _mm_and_si128(_mm_cmpgt_epi8(characters, _mm_set1_epi8(static_cast<char>(first - 1))),
                         _mm_cmplt_epi8(characters, _mm_set1_epi8(static_cast<char>(last + 1))));
}

// Converts sixteen characters to eight bytes, one in the low half of each 16-bit lane. Clears the bytes of `good` whose
// characters are no digits. Comparisons are signed, so characters from 0x80 on are below both ranges.
inline __m128i DecodeLanes(__m128i characters, __m128i& good) noexcept {
    __m128i const digits = Between(characters, '0', '9');
    __m128i const letters = Between(characters, 'a', 'f');
    good = _mm_and_si128(good, _mm_or_si128(digits, letters));
    __m128i const values =
        _mm_add_epi8(_mm_and_si128(characters, _mm_set1_epi8(0x0f)), _mm_and_si128(letters, _mm_set1_epi8(9)));
    __m128i const high4 = _mm_and_si128(values, _mm_set1_epi16(0x000f));
    return _mm_or_si128(_mm_slli_epi16(high4, 4), _mm_srli_epi16(values, 8));
}

inline bool Decode16(char const* text, unsigned char* bytes) noexcept {
    __m128i const* const from = reinterpret_cast<__m128i const*>(text);
    __m128i good = _mm_set1_epi8(-1);
    __m128i const first = DecodeLanes(_mm_loadu_si128(from), good);
    __m128i const second = DecodeLanes(_mm_loadu_si128(from + 1), good);
    __m128i const mask = _mm_set1_epi16(0x00ff);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(bytes),
                     _mm_packus_epi16(_mm_and_si128(first, mask), _mm_and_si128(second, mask)));
    return _mm_movemask_epi8(good) == 0xffff;
}

} // namespace sse2

namespace hex = sse2;
#else
namespace hex = portable;
#endif

// `count` is 16 or 32. Writes 2 * count characters and no NUL.
inline void HexEncode(unsigned char const* bytes, unsigned int count, char* text) noexcept {
    hex::Encode16(bytes, text);
    if (count == 32) {
        hex::Encode16(bytes + 16, text + 32);
    }
}

// Reads 2 * count characters and writes count bytes. `count` is 16 or 32.
// Returns: false if a character is no lower-case digit; the bytes are then unspecified.
inline bool HexDecode(char const* text, unsigned int count, unsigned char* bytes) noexcept {
    bool const good = hex::Decode16(text, bytes);
    return count == 32 ? hex::Decode16(text + 32, bytes + 16) && good : good;
}

} // namespace crrecord
