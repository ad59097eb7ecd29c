// The unique DCID list and the bloom filter.

#include "DORecord/record.h"
#include "base/memory.h"
#include "base/prefetch.h"
#include "support/layout/dcid_totals.h"
#include "support/layout/segment_source.h"
#include "support/layout/unique_list.h"

#include <algorithm>
#include <cassert>
#include <cstdlib>
#include <vector>

using namespace crrecord;

namespace {

constexpr char kAppend[] = "AppendBloomAndUniqueDCIDList";
constexpr char kMerge[] = "AppendBloom";
constexpr char kGetSizes[] = "GetUDCIDSizeList";

using Entries = std::vector<UniqueEntry>;

void LogInvalidDcid(DORecordHeader const* header, unsigned long dcid, std::uint32_t i) noexcept {
    char text[CRFPTextSize(CR_FP_TYPE_SHA256)];
    CRFPDigestToString_r(reinterpret_cast<crfp_digest_t const*>(DORecordHeaderIndexOfSegment(header, i)),
                         header->fptype, text, sizeof text);
    ErrorA(CR_STATUS_INVALID, "%s: Invalid DCID %lu for SO %s at index %u.", kAppend, dcid, text, i);
}

// Adds up the bytes of each run of segments in one container.
// Returns: false for a reserved container, which it logs.
template <class SizeAt>
bool AddRuns(DORecordHeader const* header, std::uint32_t count, unsigned char const* dcids, SizeAt sizeAt,
             DcidTotals& totals) {
    auto const dcidAt = [dcids](std::uint64_t i) { return Load<std::uint64_t>(dcids + i * kDcidSize); };
    for (std::uint32_t i = 0; i < count;) {
        std::uint64_t const dcid = dcidAt(i);
        if (dcid < CR_FIRST_FREE_DCID) {
            LogInvalidDcid(header, dcid, i);
            return false;
        }
        std::uint64_t bytes = 0;
        do {
            bytes += sizeAt(i);
            ++i;
        } while (i < count && dcidAt(i) == dcid);
        totals.Add(dcid, bytes);
    }
    return true;
}

bool CollectFromSegments(DORecordHeader const* header, Entries& entries) {
    DOSegmentSource const list = DOSegmentSource::Of(header);
    DcidTotals totals(list.count);
    auto const stored = [&list](std::uint64_t i) {
        return Load<std::uint32_t>(list.entries + i * list.stride + list.fingerprint);
    };
    auto const far = [&list, &stored](std::uint64_t i) {
        Prefetch(list.entries + i * list.stride, kAheadOfEntry, 1);
        return stored(i);
    };
    auto const any = [&list](std::uint32_t i) { return list.Size(i); };
    auto const add = [&](auto sizeAt) { return AddRuns(header, list.count, list.dcids, sizeAt, totals); };
    bool const asStored = list.sizeWidth != 0 && list.order == Order::Host;
    bool const inCache = list.count < kBeyondCaches;
    if (!(!asStored ? add(any) : inCache ? add(stored) : add(far))) {
        return false;
    }
    entries = totals.Take();
    return true;
}

// Returns: the number of entries to read: the received count, but not more than `nudcid`, the capacity of the list.
std::uint32_t ReceivedCount(unsigned char const* list, std::uint32_t nudcid) noexcept {
    return nudcid == 0 ? 0 : std::min(UniqueCount(list, Order::Network), nudcid);
}

Entries CollectReceived(unsigned char const* list, std::uint32_t nudcid) {
    Entries entries;
    std::uint32_t const count = ReceivedCount(list, nudcid);
    entries.reserve(count);
    for (std::uint32_t i = 0; i < count; ++i) {
        entries.push_back(LoadUniqueEntry(list, i, Order::Network));
    }
    SortAndMerge(entries, [](UniqueEntry& kept, UniqueEntry const& later) { kept = later; });
    return entries;
}

} // namespace

cr_status_t DORecord::AppendBloomAndUniqueDCIDList() {
    if (getTRefsSize() != 0) {
        ErrorA(CR_STATUS_INVALID, "%s: TRef size should be zero bytes.", kAppend);
        return CR_STATUS_INVALID;
    }
    RecordLayout const layout = LayoutOf(header);
    if (!RecordInternals::Reaches(*this, layout, &RecordLayout::taskids) ||
        !RecordInternals::OrderMatchesHeader(*this) || getRecSize() > bufferSize) {
        return CR_STATUS_INVALID;
    }
    unsigned char* const lengthWord = BytesOf(header) + layout.entries;
    bool const bloom = IsBloom(GetDOType());
    Entries entries;
    try {
        if (bloom) {
            // The word is byte-swapped even if there is no list, or not enough memory for it.
            CopySwapped<std::uint32_t>(lengthWord, lengthWord);
            entries = CollectReceived(BytesOf(header) + layout.udcids, GetNudcid());
        } else {
            if (!CollectFromSegments(header, entries)) {
                return CR_STATUS_INVALID;
            }
        }
    } catch (std::bad_alloc const&) {
        return CR_STATUS_NO_MEMORY;
    }
    if (entries.empty()) {
        return CR_STATUS_OK;
    }
    cr_status_t const status = RecordInternals::GrowForList(*this, entries.size());
    if (status == CR_STATUS_OK) {
        RecordInternals::WriteUniqueList(*this, entries.data(), static_cast<unsigned int>(entries.size()), layout);
    } else if (bloom && status != CR_STATUS_NO_MEMORY) {
        CopySwapped<std::uint32_t>(lengthWord, lengthWord);
    }
    return status;
}

// Sets the record size for a list of `entries` entries. If the buffer is too small, allocates one of exactly that size.
cr_status_t RecordInternals::GrowForList(DORecord& record, unsigned long entries) noexcept {
    RecordCounts counts = CountsOf(record.header, OrderOf(record.header));
    counts.ntaskid = counts.nds = counts.trefssize = 0;
    counts.nudcid = static_cast<std::uint32_t>(entries);
    std::uint64_t const size = RecordLayout(counts).total;
    if (size > kLargestRecord || (size > record.bufferSize && record.copyMode == DORecord::CopyMode::Fixed)) {
        return CR_STATUS_INVALID;
    }
    if (size > record.bufferSize) {
        void* const larger = AllocateZeroed(size);
        if (!larger) {
            return CR_STATUS_NO_MEMORY;
        }
        std::memcpy(larger, record.header, record.getRecSize());
        if (record.ownsBuffer) {
            std::free(record.header);
        }
        record.header = static_cast<DORecordHeader*>(larger);
        record.bufferSize = size;
        record.ownsBuffer = true;
        record.copyMode = DORecord::CopyMode::Own;
    }
    record.setRecSize(static_cast<unsigned int>(size));
    return CR_STATUS_OK;
}

// Stores entries, checksum and nudcid in host order, and the list's count in the record's order.
void RecordInternals::WriteUniqueList(DORecord& record, crrecord::UniqueEntry const* entries, unsigned int count,
                                      RecordLayout const& layout) noexcept {
    unsigned char* const list = BytesOf(record.header) + layout.udcids;
    record.header->nudcid = count;
    Store(list + kUniqueCountOffset, count, OrderFromFlag(record.networkOrder));
    for (std::uint32_t i = 0; i < count; ++i) {
        StoreUniqueEntry(list, i, entries[i], Order::Host);
    }
    Store(list, UniqueListChecksum(list, count));
    Clear(record, layout.udcids + UniqueListSize(count), record.getRecSize());
}

cr_status_t DORecord::AppendBloom(cr_dcid_size_map_t& sizes) {
    RecordLayout const layout = LayoutOf(header);
    if (!IsBloom(GetDOType())) {
        return CR_STATUS_OK;
    }
    if (!RecordInternals::Reaches(*this, layout, &RecordLayout::taskids) ||
        !RecordInternals::OrderMatchesHeader(*this)) {
        ErrorA(CR_STATUS_INVALID, "%s: %s", kMerge, kInvalidRecordSize);
        return CR_STATUS_OK;
    }
    // Each call byte-swaps the length word, so a second call restores it.
    unsigned char* const lengthWord = BytesOf(header) + layout.entries;
    CopySwapped<std::uint32_t>(lengthWord, lengthWord);
    unsigned char const* const list = BytesOf(header) + layout.udcids;
    std::uint32_t const count = ReceivedCount(list, GetNudcid());
    for (std::uint32_t i = 0; i < count; ++i) {
        UniqueEntry const entry = LoadUniqueEntry(list, i, Order::Network);
        sizes[entry.dcid] = entry.bytes;
    }
    return CR_STATUS_OK;
}

cr_status_t DORecord::GetUDCIDSizeList(cr_dcid_size_map_t& sizes) const {
    std::uint32_t const count = GetNudcid();
    if (count == 0) {
        ErrorA(CR_STATUS_CORRUPT_RECORD, "%s: number of unique DCID can't be zero!", kGetSizes);
        return CR_STATUS_CORRUPT_RECORD;
    }
    RecordLayout const layout = LayoutOf(header);
    if (!RecordInternals::Reaches(*this, layout, &RecordLayout::taskids) ||
        !RecordInternals::OrderMatchesHeader(*this)) {
        return CR_STATUS_CORRUPT_RECORD;
    }
    try {
        unsigned char const* const list = BytesOf(header) + layout.udcids;
        unsigned long const own = GetDCID();
        sizes.clear();
        for (std::uint32_t i = 0; i < count; ++i) {
            UniqueEntry const entry = LoadUniqueEntry(list, i, Order::Host);
            sizes[entry.dcid] = entry.dcid == own ? entry.bytes + GetDOSize() : entry.bytes;
        }
        sizes.try_emplace(own, GetDOSize());
    } catch (...) {
        // Set before and after the log call, because a sink may read errno and may change it.
        *__cr_errno_location() = CR_STATUS_NO_MEMORY;
        ErrorA(CR_STATUS_NO_MEMORY, "%s: failed to construct SO info vector, out of memory.", kGetSizes);
        return *__cr_errno_location() = CR_STATUS_NO_MEMORY;
    }
    return CR_STATUS_OK;
}

DOUniqueDCIDRange DORecord::UniqueDCIDs() const {
    RecordInternals::CheckedLayout(*this, &RecordLayout::taskids);
    return DOUniqueDCIDRange(DOUniqueDCIDSource::Of(header));
}

unsigned char const* DORecord::GetSegmentUDCIDList() const {
    return DORecordHeaderStartUDCID(header);
}

unsigned long DORecord::GetSegmentUDCID(unsigned int i) const {
    assert(i < CountsOf(header, OrderOf(header)).nudcid);
    unsigned char const* const at = BytesAt(LayoutOf(header).UniqueEntry(i), kDcidSize);
    return at ? Load<std::uint64_t>(at) : 0;
}
