// The loops of the segment codec, compiled once for each instruction set. Everything has internal linkage: each source
// that includes this file has separate functions.

#pragma once

#include "base/prefetch.h"
#include "support/exchange/segment_codec.h"

namespace crrecord {

namespace {

inline void SwapDcids(unsigned char* to, unsigned char const* from, std::uint64_t count) noexcept {
    for (std::uint64_t i = 0; i < count; ++i) {
        CopySwapped<std::uint64_t>(to + i * kDcidSize, from + i * kDcidSize);
    }
}

// Distance of the prefetched text in bytes: a dozen segments.
inline constexpr std::uint64_t kAhead = 1024;

template <class Hex, unsigned int Fingerprint, unsigned int SizeWidth, unsigned int OffsetWidth>
struct SegmentLoops {
    static constexpr unsigned int kNumbers = SizeWidth + OffsetWidth;
    static constexpr unsigned int kText = 2 * Fingerprint;
    static constexpr unsigned int kEntry = Fingerprint + kNumbers;
    static constexpr unsigned int kForm = kText + 1 + kNumbers;

    static void SwapNumbers(unsigned char* to, unsigned char const* from) noexcept {
        if constexpr (SizeWidth != 0) {
            SwapBytes<SizeWidth>(to, from);
        }
        if constexpr (OffsetWidth != 0) {
            SwapBytes<OffsetWidth>(to + SizeWidth, from + SizeWidth);
        }
    }

    static void Encode(unsigned char* form, unsigned char const* entry, std::uint64_t count) noexcept {
        for (; count != 0; --count, form += kForm, entry += kEntry) {
            Hex::template Encode<Fingerprint>(entry, reinterpret_cast<char*>(form));
            form[kText] = 0;
            SwapNumbers(form + kText + 1, entry + Fingerprint);
        }
    }

    static bool Decode(unsigned char* entry, unsigned char const* form, std::uint64_t count) noexcept {
        typename Hex::Verdict verdict;
        unsigned char nul = 0;
        for (; count != 0; --count, form += kForm, entry += kEntry) {
            Hex::template Decode<Fingerprint>(reinterpret_cast<char const*>(form), entry, verdict);
            nul |= form[kText];
            Prefetch(form, kAhead, kForm);
            SwapNumbers(entry + Fingerprint, form + kText + 1);
        }
        return verdict.Good() && nul == 0;
    }

    static bool Check(unsigned char const* form, std::uint64_t count) noexcept {
        typename Hex::Verdict verdict;
        unsigned char nul = 0;
        for (; count != 0; --count, form += kForm) {
            Hex::template Check<Fingerprint>(reinterpret_cast<char const*>(form), verdict);
            nul |= form[kText];
            Prefetch(form, kAhead, kForm);
        }
        return verdict.Good() && nul == 0;
    }

    static constexpr SegmentCodec kCodec{Encode, Decode, Check, SwapDcids};
};

template <class Hex, unsigned int Fingerprint>
SegmentCodec const* CodecOfWidth(unsigned int dotype) noexcept {
    DOType const type = DOTypeOf(dotype);
    if (type.sizeWidth == 0) {
        return &SegmentLoops<Hex, Fingerprint, 0, 0>::kCodec;
    }
    switch (type.offsetWidth) {
    case 8: return &SegmentLoops<Hex, Fingerprint, 4, 8>::kCodec;
    case 4: return &SegmentLoops<Hex, Fingerprint, 4, 4>::kCodec;
    default: return &SegmentLoops<Hex, Fingerprint, 4, 0>::kCodec;
    }
}

template <class Hex>
SegmentCodec const* CodecOf(unsigned int fptype, unsigned int dotype) noexcept {
    return CRFPDigestSize(fptype) == 32 ? CodecOfWidth<Hex, 32>(dotype) : CodecOfWidth<Hex, 16>(dotype);
}

} // namespace

} // namespace crrecord
