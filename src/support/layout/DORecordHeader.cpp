// The DORecordHeader functions: layout and byte order conversion of a record in a bare buffer.

#include "base/prefetch.h"
#include "support/layout/header_fields.h"
#include "support/layout/record_layout.h"

namespace crrecord {

namespace {

void SwapInPlace32(unsigned char* bytes) noexcept {
    CopySwapped<std::uint32_t>(bytes, bytes);
}

template <unsigned int OffsetWidth, bool far>
void SwapEntriesOf(unsigned char* entry, std::uint64_t count, RecordLayout const& layout) noexcept {
    for (; count != 0; --count, entry += layout.stride) {
        if constexpr (far) {
            Prefetch(entry, kAheadOfEntry, 1);
        }
        unsigned char* const numbers = entry + layout.fingerprint;
        SwapInPlace32(numbers);
        if constexpr (OffsetWidth != 0) {
            SwapBytes<OffsetWidth>(numbers + 4, numbers + 4);
        }
    }
}

template <unsigned int OffsetWidth>
void SwapEntries(unsigned char* entries, std::uint64_t count, RecordLayout const& layout) noexcept {
    (count < kBeyondCaches ? SwapEntriesOf<OffsetWidth, false> : SwapEntriesOf<OffsetWidth, true>)(entries, count,
                                                                                                   layout);
}

void SwapSegments(unsigned char* entries, std::uint64_t count, RecordLayout const& layout,
                  unsigned int dotype) noexcept {
    DOType const type = DOTypeOf(dotype);
    if (type.sizeWidth == 0) {
        return;
    }
    switch (type.offsetWidth) {
    case 8: SwapEntries<8>(entries, count, layout); break;
    case 4: SwapEntries<4>(entries, count, layout); break;
    default: SwapEntries<0>(entries, count, layout); break;
    }
}

// Byte-swaps the count word of the unique list and the length word of the bloom area.
void SwapWords(unsigned char* record, RecordCounts const& counts, RecordLayout const& layout) noexcept {
    if (counts.nudcid != 0) {
        SwapInPlace32(record + layout.udcids + kUniqueCountOffset);
    }
    if (IsBloom(counts.dotype)) {
        SwapInPlace32(record + layout.entries);
    }
}

// Converts in both directions. Reads the counts in the current order before it byte-swaps them.
void SwapRecord(DORecordHeader* header) noexcept {
    RecordCounts const counts = CountsOf(header, OrderOf(header));
    RecordLayout const layout(counts);
    SwapSegments(BytesOf(header) + layout.entries, layout.segments, layout, counts.dotype);
    SwapHeaderFields(header);
    SwapWords(BytesOf(header), counts, layout);
}

// Returns: a writable address in a record passed as const, as strchr does.
unsigned char* At(DORecordHeader const* header, std::uint64_t offset) noexcept {
    return const_cast<unsigned char*>(BytesOf(header)) + offset;
}

} // namespace

void SwapHeaderFields(DORecordHeader* header) noexcept {
    unsigned char* const bytes = BytesOf(header);
    ForEachIndex<kHeaderFields>([=]<std::size_t I> {
        constexpr HeaderField field = kHeaderFields[I];
        if constexpr (field.swapped) {
            SwapBytes<field.width>(bytes + field.offset, bytes + field.offset);
        }
    });
}

void SegmentsToHost(unsigned char* record, RecordLayout const& layout, unsigned int dotype, Order order,
                    std::uint64_t first, std::uint64_t count) noexcept {
    if (order == Order::Network) {
        SwapSegments(record + layout.Entry(first), count, layout, dotype);
    }
}

void WordsToHost(unsigned char* record, RecordCounts const& counts, RecordLayout const& layout, Order order) noexcept {
    if (order == Order::Network) {
        SwapWords(record, counts, layout);
    }
}

} // namespace crrecord

using namespace crrecord;

int CRDOTypeIsValid(unsigned int dotype) noexcept {
    return dotype <= CR_DO_TYPE_LAST;
}

unsigned long DORecordHeaderSizeRaw(unsigned int ntaskid, unsigned int n, unsigned int nudcid, unsigned int nds,
                                    unsigned char dotype, unsigned char fptype, unsigned int trefssize) noexcept {
    return RecordLayout({.ntaskid = ntaskid,
                         .nfp = n,
                         .nudcid = nudcid,
                         .nds = nds,
                         .trefssize = trefssize,
                         .bsize = n,
                         .fptype = fptype,
                         .dotype = dotype})
        .total;
}

unsigned long DORecordHeaderSizeWithBloom(unsigned int ntaskid, unsigned int bsize, unsigned int nudcid,
                                          unsigned int nds, unsigned char, unsigned int trefssize) noexcept {
    return DORecordHeaderSizeRaw(ntaskid, bsize, nudcid, nds, CR_DO_TYPE_BLOOM_FILTER, 0, trefssize);
}

unsigned char* DORecordHeaderIndexOfSegment(DORecordHeader const* header, unsigned int i) noexcept {
    return At(header, LayoutOf(header).Entry(i));
}

unsigned char* DORecordHeaderIndexOfSegmentSize(DORecordHeader const* header, unsigned int i) noexcept {
    RecordLayout const layout = LayoutOf(header);
    return At(header, layout.Entry(i) + layout.fingerprint);
}

unsigned char* DORecordHeaderIndexOfSegmentOffset(DORecordHeader const* header, unsigned int i) noexcept {
    RecordLayout const layout = LayoutOf(header);
    return At(header, layout.Entry(i) + layout.offset);
}

unsigned char* DORecordHeaderIndexOfSegmentObjectOffset(DORecordHeader const* header, unsigned int i) noexcept {
    return DORecordHeaderIndexOfSegmentOffset(header, i);
}

unsigned char* DORecordHeaderIndexOfDCID(DORecordHeader const* header, unsigned int i) noexcept {
    return At(header, LayoutOf(header).Dcid(i));
}

unsigned char* DORecordHeaderStartUDCID(DORecordHeader const* header) noexcept {
    return At(header, LayoutOf(header).udcids);
}

unsigned char* DORecordHeaderIndexOfUDCID(DORecordHeader const* header, unsigned int i) noexcept {
    return At(header, LayoutOf(header).UniqueEntry(i));
}

unsigned char* DORecordHeaderIndexOfTaskId(DORecordHeader const* header, unsigned int i) noexcept {
    return At(header, LayoutOf(header).taskids + std::uint64_t{kLegacyTaskIdSize} * i);
}

unsigned char* DORecordHeaderIndexOfDataSelection(DORecordHeader const* header, unsigned int i) noexcept {
    return At(header, LayoutOf(header).dsids + std::uint64_t{kLegacyDsidSize} * i);
}

unsigned char* DORecordHeaderStartTRefs(DORecordHeader const* header) noexcept {
    return At(header, LayoutOf(header).trefs);
}

unsigned char* DORecordHeaderStartBFBitmap(DORecordHeader const* header) noexcept {
    return At(header, LayoutOf(header).entries);
}

unsigned char* DORecordHeaderGetBloomStart(DORecordHeader const* header) noexcept {
    return DORecordHeaderStartBFBitmap(header);
}

unsigned char* DORecordHeaderGetBloom(DORecordHeader const* header) noexcept {
    bool const bitmap = IsBloom(header->dotype) && header->bsize != 0;
    return bitmap ? DORecordHeaderGetBloomStart(header) + kBloomLengthSize : nullptr;
}

unsigned long DORecordHeaderGetPOID(DORecordHeader const* header) noexcept {
    return OrderOf(header) == Order::Host ? header->CID : ByteSwapped(header->CID);
}

void DORecordHeaderHton(DORecordHeader* header) noexcept {
    SwapRecord(header);
}

void DORecordHeaderNtoh(DORecordHeader* header) noexcept {
    SwapRecord(header);
}
