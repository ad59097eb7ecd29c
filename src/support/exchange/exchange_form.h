// The exchange form of a DO record. All integers are big-endian.
//
//   0   8  size of the object               16  4  checksum: the record's CRC, or Adler-32 of the body (28 to the end)
//   8   8  ssize                            20  4  number of segments; 24  4  zero
//
// Body of a form with segments: for each segment its fingerprint as text with the NUL, and its size and its offset if
// the DO type stores them; one zero byte; the DCID of each segment.
// Body for DO type 4: length of the bitmap (4), the bitmap, the unique DCID list if there is one, and zeros.

#pragma once

#include "support/exchange/segment_codec.h"

namespace crrecord::exchange {

inline constexpr unsigned int kSizeOffset = 0;
inline constexpr unsigned int kSsizeOffset = 8;
inline constexpr unsigned int kChecksumOffset = 16;
inline constexpr unsigned int kCountOffset = 20;
inline constexpr unsigned int kZeroOffset = 24;
inline constexpr unsigned int kHeadSize = 28;
inline constexpr unsigned int kSeparatorSize = 1;
inline constexpr unsigned int kBitmapOffset = kHeadSize + kBloomLengthSize;
// Size of a bloom form without bitmap and list. A list of n entries adds 16 * n bytes; the 8 bytes of its head replace
// zeros.
inline constexpr unsigned int kBloomBareSize = 56;

constexpr std::uint64_t FormSize(std::uint32_t segments, unsigned int dotype, unsigned int fptype) noexcept {
    return (std::uint64_t{SegmentFormSize(fptype, dotype)} + kDcidSize) * segments + kHeadSize + kSeparatorSize;
}

constexpr std::uint64_t BloomFormSize(std::uint32_t bsize, std::uint32_t nudcid) noexcept {
    return std::uint64_t{bsize} + std::uint64_t{kUniqueEntrySize} * nudcid + kBloomBareSize;
}

// Number of bytes that the checksum of a form's unique list covers: the count and the first half of the entries' bytes.
// The checksum in a record covers all entries; the two differ on purpose.
constexpr std::uint64_t ListChecksumSize(std::uint32_t nudcid) noexcept {
    return 4 + std::uint64_t{8} * nudcid;
}

// A received form, and the counts that ReadCounts has read from it. Before that, `counts` has only the DO type and the
// fingerprint type. A DO type above 255 becomes 255, which is unknown too.
struct Form {
    Form(void const* form, std::uint64_t length, unsigned int dotype, unsigned char fptype) noexcept
        : bytes(static_cast<unsigned char const*>(form)),
          size(length), counts{.fptype = fptype, .dotype = static_cast<unsigned char>(std::min(dotype, kNoType))} {}

    static constexpr unsigned int kNoType = 0xff;

    unsigned char const* bytes;
    std::uint64_t size;
    RecordCounts counts;

    std::uint32_t Word(std::uint64_t offset) const noexcept {
        return Load<std::uint32_t>(bytes + offset, Order::Network);
    }
    bool IsBloom() const noexcept { return crrecord::IsBloom(counts.dotype); }

    // The size that the counts give.
    std::uint64_t CalculatedSize() const noexcept {
        return IsBloom() ? BloomFormSize(counts.bsize, counts.nudcid)
                         : FormSize(counts.nfp, counts.dotype, counts.fptype);
    }
    // Offsets of the zero byte after the segments, and of the unique list of a bloom form. They are inside of a form
    // that has its calculated size.
    std::uint64_t SeparatorOffset() const noexcept {
        return kHeadSize + std::uint64_t{SegmentFormSize(counts.fptype, counts.dotype)} * counts.nfp;
    }
    std::uint64_t ListOffset() const noexcept { return kBitmapOffset + std::uint64_t{counts.bsize}; }
};

// Reads the counts of a form that has at least kHeadSize bytes. They are not checked.
void ReadCounts(Form& form) noexcept;

// The right checksums of the body, and of the unique list of a bloom form. The form must have its calculated size.
std::uint32_t BodyChecksum(Form const& form) noexcept;
std::uint32_t ListChecksum(Form const& form) noexcept;

} // namespace crrecord::exchange
