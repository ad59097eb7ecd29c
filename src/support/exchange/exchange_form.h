// The exchange form of a DO record, as the serializers write it and the parser reads it. All integers are big-endian.
//
//   0   8  size of the object               16  4  checksum: the record's CRC, or Adler-32 of the body (28 to the end)
//   8   8  ssize                            20  4  number of segments; 24  4  zero
//
// Body for segments: of each its fingerprint as text with the NUL, its size and its offset where the DO type has them;
// one zero byte; of each its DCID.
// Body for DO type 4: length of the bitmap (4), the bitmap, the unique DCID list where there is one, and zeros.

#pragma once

#include "support/exchange/segment_codec.h"
#include "support/validate/segment_list_check.h"

namespace crrecord::exchange {

inline constexpr unsigned int kSizeOffset = 0;
inline constexpr unsigned int kSsizeOffset = 8;
inline constexpr unsigned int kChecksumOffset = 16;
inline constexpr unsigned int kCountOffset = 20;
inline constexpr unsigned int kZeroOffset = 24;
inline constexpr unsigned int kHeadSize = 28;
inline constexpr unsigned int kSeparatorSize = 1;
inline constexpr unsigned int kBitmapOffset = kHeadSize + kBloomLengthSize;
// A bloom form without bitmap and list; a list of n entries adds 16 * n, and its head takes from these bytes.
inline constexpr unsigned int kBloomBareSize = 56;

constexpr std::uint64_t FormSize(std::uint32_t segments, unsigned int dotype, unsigned int fptype) noexcept {
    return (std::uint64_t{SegmentFormSize(fptype, dotype)} + kDcidSize) * segments + kHeadSize + kSeparatorSize;
}

constexpr std::uint64_t BloomFormSize(std::uint32_t bsize, std::uint32_t nudcid) noexcept {
    return std::uint64_t{bsize} + std::uint64_t{kUniqueEntrySize} * nudcid + kBloomBareSize;
}

// The part of a unique list that the exchange form's checksum covers: the count and as many bytes behind it as half of
// the entries have. The record's own checksum covers all entries; the two differ on purpose.
constexpr std::uint64_t ListChecksumSize(std::uint32_t nudcid) noexcept {
    return 4 + std::uint64_t{8} * nudcid;
}

// A received form, and what it says that it holds. `counts` starts with the DO type and the fingerprint type. A type
// beyond a byte is as unknown as the last one that fits.
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
    // The list of a measured bloom form.
    unsigned char const* List() const noexcept { return bytes + kBitmapOffset + counts.bsize; }
};

// Takes the counts from the head; false where they, or the fixed zeros of the head, don't go with the form's size. The
// counts of a form that is too short for its head stay 0.
bool ReadCounts(Form& form) noexcept;

// Makes the record of a form, in the buffer where it is given one that is large enough, or in a new one. `fault` is the
// first rule that its segments break, if any: the record is made all the same. On failure, whose status it returns,
// both pointers' values stay, and the content of a large enough buffer is unspecified.
cr_status_t Parse(Form form, bool subDO, DORecordHeader** header, unsigned long* bufferSize,
                  SegmentFault& fault) noexcept;

// What the checks of a measured form look at: the checksums that it should have (of its list, where it has one), and
// the bytes behind the last section of a bloom form.
std::uint32_t BodyChecksum(Form const& form) noexcept;
std::uint32_t BloomListChecksum(Form const& form) noexcept;
bool BloomEndIsZero(Form const& form) noexcept;

} // namespace crrecord::exchange
