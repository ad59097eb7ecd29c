// The layout of a DO record: the offset and size of each section.

#pragma once

#include <crrecord/entry_layout.h>

#include "base/byteorder.h"

#include <algorithm>
#include <atomic>
#include <limits>

namespace crrecord {

inline constexpr std::uint64_t kLargestRecord = std::numeric_limits<std::uint32_t>::max();

inline constexpr unsigned int kKnownFlags = CRR_DO_FLAGS; // the flags that a record may have

inline constexpr unsigned int kDcidSize = CRR_DCID_SIZE;
inline constexpr unsigned int kLegacyTaskIdSize = CRR_TASKID_SIZE;
inline constexpr unsigned int kLegacyDsidSize = CRR_DSID_SIZE;

// The unique DCID list: checksum, count, then entries of a DCID and a number of bytes.
inline constexpr unsigned int kUniqueCountOffset = CRR_LIST_COUNT;
inline constexpr unsigned int kUniqueHeadSize = CRR_LIST_HEAD;
inline constexpr unsigned int kUniqueEntrySize = CRR_LIST_ENTRY;

// The bloom area: length word, bitmap, and 16 zero bytes that the digest covers too.
inline constexpr unsigned int kBloomLengthSize = CRR_BLOOM_LENGTH_SIZE;
inline constexpr unsigned int kBloomEndSize = CRR_BLOOM_END_SIZE;

// Every record ends with zeros. Callers may access 32 bytes of a 16-byte fingerprint, or a size or offset that the
// entry does not have. In a record with segments, the zeros keep such an access to the last entry inside the record.
inline constexpr unsigned int kTailSize = CRR_TAIL_SIZE;
inline constexpr unsigned int kBloomTailSize = CRR_BLOOM_TAIL_SIZE;

constexpr std::uint64_t UniqueListSize(std::uint32_t nudcid) noexcept {
    return crr_list_size(nudcid);
}

// The header fields that determine the layout of a record, as host values.
struct RecordCounts {
    std::uint32_t ntaskid = 0;
    std::uint32_t nfp = 0;
    std::uint32_t nudcid = 0;
    std::uint32_t nds = 0;
    std::uint32_t trefssize = 0;
    std::uint32_t bsize = 0;
    unsigned char fptype = 0;
    unsigned char dotype = 0;
};

// The offsets of the sections (crr_do_layout, reader.h) and the layout of the entries. No sum can overflow, because the
// largest is below 2^39 (layout_bounds.cpp).
struct RecordLayout : DOEntryLayout, crr_do_layout {
    constexpr explicit RecordLayout(RecordCounts const& counts) noexcept
        : DOEntryLayout(counts.dotype, counts.fptype), crr_do_layout(Sections(counts, stride)) {}

    constexpr std::uint64_t Dcid(std::uint64_t i) const noexcept { return dcids + i * kDcidSize; }
    constexpr std::uint64_t UniqueEntry(std::uint64_t i) const noexcept {
        return udcids + kUniqueHeadSize + i * kUniqueEntrySize;
    }

private:
    static constexpr crr_do_layout Sections(RecordCounts const& counts, unsigned int stride) noexcept {
        crr_do_counts const values{counts.ntaskid,   counts.nfp,   counts.nudcid,         counts.nds,
                                   counts.trefssize, counts.bsize, IsBloom(counts.dotype)};
        return crr_do_layout_of(&values, stride);
    }
};

// Reads the counts of a header that is in `order`. The legacy counts are never byte-swapped.
inline RecordCounts CountsOf(DORecordHeader const* header, Order order) noexcept {
    auto const read = [order](std::uint32_t stored) { return order == Order::Host ? stored : ByteSwapped(stored); };
    return {.ntaskid = header->ntaskid,
            .nfp = read(header->nfp),
            .nudcid = read(header->nudcid),
            .nds = header->nds,
            .trefssize = read(header->trefssize),
            .bsize = read(header->bsize),
            .fptype = header->fptype,
            .dotype = header->dotype};
}

// Copies the header of a record whose memory may change at any time. Later changes do not affect the copy.
inline DORecordHeader ReadHeader(void const* record) noexcept {
    DORecordHeader header;
    std::memcpy(&header, record, sizeof header);
    std::atomic_signal_fence(std::memory_order_seq_cst); // keeps the compiler from reading the record instead
    return header;
}

// Byte-swaps the fields of the fixed header only.
void SwapHeaderFields(DORecordHeader* header) noexcept;

// Converts a copied header to host order. Returns: its order before the conversion.
inline Order HeaderToHost(DORecordHeader& header) noexcept {
    Order const order = OrderOf(&header);
    if (order == Order::Network) {
        SwapHeaderFields(&header);
    }
    return order;
}

// Convert parts of a copied record from `order` to host order: SegmentsToHost `count` segments starting at `first`,
// WordsToHost the words that are neither in the header nor in a segment.
void SegmentsToHost(unsigned char* record, RecordLayout const& layout, unsigned int dotype, Order order,
                    std::uint64_t first, std::uint64_t count) noexcept;
void WordsToHost(unsigned char* record, RecordCounts const& counts, RecordLayout const& layout, Order order) noexcept;

inline RecordLayout LayoutOf(DORecordHeader const* header) noexcept {
    return RecordLayout(CountsOf(header, OrderOf(header)));
}

inline unsigned char* BytesOf(DORecordHeader* header) noexcept {
    return reinterpret_cast<unsigned char*>(header);
}

inline unsigned char const* BytesOf(DORecordHeader const* header) noexcept {
    return reinterpret_cast<unsigned char const*>(header);
}

// Calls work(first, count) for each block of segments, in order. A block has at most a few dozen KB in any form, so
// that it stays in the nearest caches.
//
// Returns: false if a call returned false, which ends the loop; otherwise true.
template <class Work>
bool ForEachBlock(std::uint64_t segments, Work work) noexcept {
    constexpr std::uint64_t kBlock = 256;
    for (std::uint64_t first = 0; first < segments; first += kBlock) {
        if (!work(first, std::min(kBlock, segments - first))) {
            return false;
        }
    }
    return true;
}

} // namespace crrecord
