// Segments between a record's entries and the packed big-endian form that exchange forms and digests are made of: the
// fingerprint as text with its NUL, the 32-bit size where the DO type has one, and the offset where it has one.

#pragma once

#include "support/layout/record_layout.h"

namespace crrecord {

// Bytes of one segment in that form.
constexpr unsigned int SegmentFormSize(unsigned int fptype, unsigned int dotype) noexcept {
    DOType const type = DOTypeOf(dotype);
    return CRFPTextSize(fptype) + type.sizeWidth + type.offsetWidth;
}

// The loops for one shape of entries, and the one for DCIDs, which have the same form everywhere.
struct SegmentCodec {
    void (*encode)(unsigned char* form, unsigned char const* entries, std::uint64_t count) noexcept;
    // False, with the entries unspecified, where a text is not lower-case hexadecimal with a NUL.
    bool (*decode)(unsigned char* entries, unsigned char const* form, std::uint64_t count) noexcept;
    // Whether decode would succeed.
    bool (*check)(unsigned char const* form, std::uint64_t count) noexcept;
    void (*swapDcids)(unsigned char* to, unsigned char const* from, std::uint64_t count) noexcept;
};

// The fastest that this processor has.
SegmentCodec const& SegmentCodecFor(unsigned int fptype, unsigned int dotype) noexcept;

// The codec for every processor, and the one for AVX2, which is null on other machines than x86-64. Both return the
// same results.
SegmentCodec const* BaseSegmentCodec(unsigned int fptype, unsigned int dotype) noexcept;
SegmentCodec const* Avx2SegmentCodec(unsigned int fptype, unsigned int dotype) noexcept;

} // namespace crrecord
