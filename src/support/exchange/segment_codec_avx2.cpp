// The segment codec for processors with AVX2.
//
// Only the code between the two pragmas uses AVX2, and all of it has internal linkage. Inline functions of other
// headers that the compiler emits here are compiled for every processor, so the linker may keep any copy.

#include "support/exchange/segment_codec.h"

#if defined(__x86_64__)

#include "base/prefetch.h"

#include <immintrin.h>

#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("avx2"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx2")
#endif

#include "support/exchange/segment_codec_loops.h"

namespace crrecord {

namespace {

// Converts nibbles, one per byte, to characters.
[[gnu::always_inline]] inline __m256i NibblesToText(__m256i nibbles) noexcept {
    __m256i const digits = _mm256_broadcastsi128_si256(
        _mm_setr_epi8('0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 'a', 'b', 'c', 'd', 'e', 'f'));
    return _mm256_shuffle_epi8(digits, nibbles);
}

// Converts sixteen bytes to 32 characters. The high nibble is first.
[[gnu::always_inline]] inline void EncodeHalf(unsigned char const* bytes, char* text) noexcept {
    __m256i const lanes = _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<__m128i const*>(bytes)));
    __m256i const nibbles = _mm256_and_si256(_mm256_or_si256(_mm256_srli_epi16(lanes, 4), _mm256_slli_epi16(lanes, 8)),
                                             _mm256_set1_epi16(0x0f0f));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(text), NibblesToText(nibbles));
}

// A table has, for each low nibble, the only character of its kind with that nibble, or 0xff. A shuffle maps characters
// from 0x80 on to 0, which does not equal them.
[[gnu::always_inline]] inline __m256i IsEntry(__m256i characters, __m128i table) noexcept {
    return _mm256_cmpeq_epi8(characters, _mm256_shuffle_epi8(_mm256_broadcastsi128_si256(table), characters));
}
[[gnu::always_inline]] inline __m256i AreDigits(__m256i characters) noexcept {
    return IsEntry(characters, _mm_setr_epi8('0', '1', '2', '3', '4', '5', '6', '7', '8', '9', -1, -1, -1, -1, -1, -1));
}
[[gnu::always_inline]] inline __m256i AreLetters(__m256i characters) noexcept {
    return IsEntry(characters, _mm_setr_epi8(-1, 'a', 'b', 'c', 'd', 'e', 'f', -1, -1, -1, -1, -1, -1, -1, -1, -1));
}

// Whether all characters of many texts were valid.
class Avx2Verdict {
public:
    // Explicit, because an implicit constructor would be compiled without AVX2.
    [[gnu::always_inline]] Avx2Verdict() noexcept : good_(_mm256_set1_epi8(-1)) {}
    [[gnu::always_inline]] void And(__m256i good) noexcept { good_ = _mm256_and_si256(good_, good); }
    [[gnu::always_inline]] bool Good() const noexcept { return _mm256_movemask_epi8(good_) == -1; }

private:
    __m256i good_;
};

// Converts 32 characters to sixteen bytes, one in each 16-bit lane.
[[gnu::always_inline]] inline __m256i DecodeLanes(char const* text, Avx2Verdict& verdict) noexcept {
    __m256i const characters = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(text));
    __m256i const letters = AreLetters(characters);
    verdict.And(_mm256_or_si256(letters, AreDigits(characters)));
    __m256i const values = _mm256_add_epi8(_mm256_and_si256(characters, _mm256_set1_epi8(0x0f)),
                                           _mm256_and_si256(letters, _mm256_set1_epi8(9)));
    return _mm256_maddubs_epi16(values, _mm256_set1_epi16(0x0110)); // high * 16 + low
}

[[gnu::always_inline]] inline void CheckHalf(char const* text, Avx2Verdict& verdict) noexcept {
    __m256i const characters = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(text));
    verdict.And(_mm256_or_si256(AreLetters(characters), AreDigits(characters)));
}

struct Avx2Hex {
    template <unsigned int Bytes>
    [[gnu::always_inline]] static void Encode(unsigned char const* bytes, char* text) noexcept {
        EncodeHalf(bytes, text);
        if constexpr (Bytes == 32) {
            EncodeHalf(bytes + 16, text + 32);
        }
    }

    using Verdict = Avx2Verdict;

    template <unsigned int Bytes>
    [[gnu::always_inline]] static void Decode(char const* text, unsigned char* bytes, Verdict& verdict) noexcept {
        __m256i const first = DecodeLanes(text, verdict);
        __m256i const second = Bytes == 32 ? DecodeLanes(text + 32, verdict) : first;
        // Packing works within 128-bit halves; the permutation puts the quarters in order.
        __m256i const packed = _mm256_permute4x64_epi64(_mm256_packus_epi16(first, second), 0xd8);
        if constexpr (Bytes == 32) {
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(bytes), packed);
        } else {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(bytes), _mm256_castsi256_si128(packed));
        }
    }

    template <unsigned int Bytes>
    [[gnu::always_inline]] static void Check(char const* text, Verdict& verdict) noexcept {
        CheckHalf(text, verdict);
        if constexpr (Bytes == 32) {
            CheckHalf(text + 32, verdict);
        }
    }
};

} // namespace

} // namespace crrecord

#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif

namespace crrecord {

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
