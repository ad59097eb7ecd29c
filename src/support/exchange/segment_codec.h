// Conversion of segments between the entries of a record and the packed big-endian form in exchange forms and digests:
// the fingerprint as text with its NUL, and the 32-bit size and the offset if the DO type stores them.

#pragma once

#include "support/layout/record_layout.h"

namespace crrecord {

// A segment in that form: the text with its NUL takes the place of the fingerprint.
constexpr DOEntryLayout FormEntryLayout(unsigned int fptype, unsigned int dotype) noexcept {
    return DOEntryLayout(crr_entry_of(dotype, CRFPTextSize(fptype)));
}

// Bytes of one segment in that form.
constexpr unsigned int SegmentFormSize(unsigned int fptype, unsigned int dotype) noexcept {
    return FormEntryLayout(fptype, dotype).stride;
}

// The loops for one shape of entries. The loop for DCIDs is the same for all shapes.
struct SegmentCodec {
    void (*encode)(unsigned char* form, unsigned char const* entries, std::uint64_t count) noexcept;
    // Returns: false if a text is not lower-case hexadecimal with a NUL. The entries are unspecified then.
    bool (*decode)(unsigned char* entries, unsigned char const* form, std::uint64_t count) noexcept;
    // Returns: whether decode would succeed.
    bool (*check)(unsigned char const* form, std::uint64_t count) noexcept;
    void (*swapDcids)(unsigned char* to, unsigned char const* from, std::uint64_t count) noexcept;
};

// Returns: the fastest codec for this processor. AVX2 is up to 3.6 times as fast as SSE2.
SegmentCodec const& SegmentCodecFor(unsigned int fptype, unsigned int dotype) noexcept;

// The codec for every processor, and the codec for AVX2, which is null on machines other than x86-64. Their results are
// the same.
SegmentCodec const* BaseSegmentCodec(unsigned int fptype, unsigned int dotype) noexcept;
SegmentCodec const* Avx2SegmentCodec(unsigned int fptype, unsigned int dotype) noexcept;

} // namespace crrecord
