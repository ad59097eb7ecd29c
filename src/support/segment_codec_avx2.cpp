// The segment codec for processors with AVX2. Compiled for them as a whole, so nothing here may be called, and no
// function of another source be emitted, before the processor was asked; the loops and what they use are inlined.

#include "support/segment_codec.h"

#if defined(__AVX2__)

#include "support/segment_codec_loops.h"

#include <immintrin.h>

namespace crrecord {

namespace {

// One nibble a byte to its character.
[[gnu::always_inline]] inline __m256i NibblesToText(__m256i nibbles) noexcept {
    __m256i const digits = _mm256_broadcastsi128_si256(
        _mm_setr_epi8('0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 'a', 'b', 'c', 'd', 'e', 'f'));
    return _mm256_shuffle_epi8(digits, nibbles);
}

// Sixteen bytes to 32 characters: the high nibble goes in front.
[[gnu::always_inline]] inline void EncodeHalf(unsigned char const* bytes, char* text) noexcept {
    __m256i const lanes = _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<__m128i const*>(bytes)));
    __m256i const nibbles = _mm256_and_si256(_mm256_or_si256(_mm256_srli_epi16(lanes, 4), _mm256_slli_epi16(lanes, 8)),
                                             _mm256_set1_epi16(0x0f0f));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(text), NibblesToText(nibbles));
}

// Comparisons are signed: characters from 0x80 on are below both ranges.
[[gnu::always_inline]] inline __m256i Between(__m256i characters, char first, char last) noexcept {
    return _mm256_and_si256(_mm256_cmpgt_epi8(characters, _mm256_set1_epi8(static_cast<char>(first - 1))),
                            _mm256_cmpgt_epi8(_mm256_set1_epi8(static_cast<char>(last + 1)), characters));
}

// Thirty-two characters to sixteen bytes, one in each 16-bit lane; clears the lanes of `good` that are no digit.
[[gnu::always_inline]] inline __m256i DecodeLanes(char const* text, __m256i& good) noexcept {
    __m256i const characters = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(text));
    __m256i const letters = Between(characters, 'a', 'f');
    good = _mm256_and_si256(good, _mm256_or_si256(letters, Between(characters, '0', '9')));
    __m256i const values = _mm256_add_epi8(_mm256_and_si256(characters, _mm256_set1_epi8(0x0f)),
                                           _mm256_and_si256(letters, _mm256_set1_epi8(9)));
    return _mm256_maddubs_epi16(values, _mm256_set1_epi16(0x0110)); // high * 16 + low
}

[[gnu::always_inline]] inline __m256i AreDigits(char const* text) noexcept {
    __m256i const characters = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(text));
    return _mm256_or_si256(Between(characters, 'a', 'f'), Between(characters, '0', '9'));
}

[[gnu::always_inline]] inline bool AllSet(__m256i good) noexcept {
    return _mm256_movemask_epi8(good) == -1;
}

struct Avx2Hex {
    template <unsigned int Bytes>
    [[gnu::always_inline]] static void Encode(unsigned char const* bytes, char* text) noexcept {
        EncodeHalf(bytes, text);
        if constexpr (Bytes == 32) {
            EncodeHalf(bytes + 16, text + 32);
        }
    }

    template <unsigned int Bytes>
    [[gnu::always_inline]] static bool Decode(char const* text, unsigned char* bytes) noexcept {
        __m256i good = _mm256_set1_epi8(-1);
        __m256i const first = DecodeLanes(text, good);
        __m256i const second = Bytes == 32 ? DecodeLanes(text + 32, good) : first;
        // Packing works within 128-bit halves; the permutation puts the quarters in order.
        __m256i const packed = _mm256_permute4x64_epi64(_mm256_packus_epi16(first, second), 0xd8);
        if constexpr (Bytes == 32) {
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(bytes), packed);
        } else {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(bytes), _mm256_castsi256_si128(packed));
        }
        return AllSet(good);
    }

    template <unsigned int Bytes>
    [[gnu::always_inline]] static bool IsText(char const* text) noexcept {
        __m256i good = AreDigits(text);
        if constexpr (Bytes == 32) {
            good = _mm256_and_si256(good, AreDigits(text + 32));
        }
        return AllSet(good);
    }
};

} // namespace

SegmentCodec const* Avx2SegmentCodec(unsigned int fptype, unsigned int dotype) noexcept {
    return CodecOf<Avx2Hex>(fptype, dotype);
}

} // namespace crrecord

#else

namespace crrecord {

SegmentCodec const* Avx2SegmentCodec(unsigned int, unsigned int) noexcept {
    return nullptr;
}

} // namespace crrecord

#endif
