// Serialization of a record to its exchange forms.

#include "DORecord/record.h"
#include "base/adler32.h"
#include "base/memory.h"
#include "support/exchange/exchange_form.h"
#include "support/exchange/output_block.h"
#include "support/exchange/segment_codec.h"
#include "support/layout/unique_list.h"

#include <cstdlib>
#include <limits>

using namespace crrecord;

namespace {

constexpr char kSerializationSource[] = "DORecord/serialization.cpp";
constexpr SerializerSite kSegmentsSite{"DO", "Serialize", kSerializationSource, 320};
constexpr SerializerSite kBloomSite{"DO", "SerializeBloomFilterDO", kSerializationSource, 438};
constexpr std::uint64_t kNoLimit = std::numeric_limits<std::uint64_t>::max();

void WriteHead(unsigned char* to, DORecordHeader const& header) noexcept {
    Store(to + exchange::kSizeOffset, header.size, Order::Network);
    Store(to + exchange::kSsizeOffset, header.ssize, Order::Network);
    Store(to + exchange::kChecksumOffset, header.CRC, Order::Network);
    Store(to + exchange::kCountOffset, header.nfp, Order::Network);
    Store(to + exchange::kZeroOffset, std::uint32_t{0});
}

void StoreBodyChecksum(unsigned char* form, std::uint64_t length) noexcept {
    Store(form + exchange::kChecksumOffset, Adler32(form + exchange::kHeadSize, length - exchange::kHeadSize),
          Order::Network);
}

// Writes the body block by block and adds each block to the checksum while it is in the cache.
// Returns: the body's Adler-32 if `withChecksum`, otherwise kAdler32Start.
std::uint32_t WriteBody(unsigned char* to, unsigned char const* record, RecordLayout const& layout,
                        SegmentCodec const& codec, unsigned int segmentForm, bool withChecksum) noexcept {
    std::uint32_t sum = kAdler32Start;
    auto const written = [&](std::uint64_t bytes) {
        if (withChecksum) {
            sum = Adler32More(sum, to, bytes);
        }
        to += bytes;
        return true;
    };
    ForEachBlock(layout.segments, [&](std::uint64_t first, std::uint64_t count) {
        codec.encode(to, record + layout.Entry(first), count);
        return written(count * segmentForm);
    });
    std::memset(to, 0, exchange::kSeparatorSize);
    written(exchange::kSeparatorSize);
    ForEachBlock(layout.segments, [&](std::uint64_t first, std::uint64_t count) {
        codec.swapDcids(to, record + layout.Dcid(first), count);
        return written(count * kDcidSize);
    });
    return sum;
}

// The checksum in the form covers fewer bytes of the list than the checksum in the record. Readers require this.
void WriteList(unsigned char* to, unsigned char const* list, std::uint32_t count) noexcept {
    Store(to + kUniqueCountOffset, count, Order::Network);
    for (std::uint32_t i = 0; i < count; ++i) {
        StoreUniqueEntry(to, i, LoadUniqueEntry(list, i, Order::Host), Order::Network);
    }
    Store(to, Adler32(to + kUniqueCountOffset, exchange::ListChecksumSize(count)), Order::Network);
}

} // namespace

cr_status_t DORecord::Serialize(void** out, unsigned long* outLength, bool withChecksum) const {
    if (!header) {
        return CR_STATUS_INVALID;
    }
    if (IsBloom(GetDOType())) {
        return SerializeBloomFilterDO(out, outLength, withChecksum);
    }
    RecordLayout const layout = LayoutOf(header);
    if (networkOrder || !RecordInternals::Reaches(*this, layout, &RecordLayout::udcids) ||
        !RecordInternals::OrderMatchesHeader(*this)) {
        return CR_STATUS_INVALID;
    }
    if (!out || !outLength) {
        return CR_STATUS_NULL_ARGUMENT;
    }
    std::uint64_t const length = exchange::FormSize(layout.segments, GetDOType(), GetFPType());
    cr_status_t const status = AllocateOutput(kSegmentsSite, length, kNoLimit, out, &Allocate);
    if (status != CR_STATUS_OK) {
        return status;
    }
    auto* const form = static_cast<unsigned char*>(*out);
    WriteHead(form, *header);
    std::uint32_t const checksum =
        WriteBody(form + exchange::kHeadSize, BytesOf(header), layout, SegmentCodecFor(GetFPType(), GetDOType()),
                  SegmentFormSize(GetFPType(), GetDOType()), withChecksum);
    if (withChecksum) {
        Store(form + exchange::kChecksumOffset, checksum, Order::Network);
    }
    *outLength = length;
    return CR_STATUS_OK;
}

cr_status_t DORecord::SerializeBloomFilterDO(void** out, unsigned long* outLength, bool) const {
    if (!header || !IsBloom(GetDOType()) || networkOrder) {
        return CR_STATUS_INVALID;
    }
    RecordLayout const layout = LayoutOf(header);
    if (!RecordInternals::Reaches(*this, layout, &RecordLayout::taskids) ||
        !RecordInternals::OrderMatchesHeader(*this)) {
        return CR_STATUS_INVALID;
    }
    if (!out || !outLength) {
        return CR_STATUS_NULL_ARGUMENT;
    }
    std::uint32_t const bsize = GetBSize();
    std::uint64_t const length = exchange::BloomFormSize(bsize, GetNudcid());
    cr_status_t const status = AllocateOutput(kBloomSite, length, kNoLimit, out, &AllocateZeroed);
    if (status != CR_STATUS_OK) {
        return status;
    }
    auto* const form = static_cast<unsigned char*>(*out);
    WriteHead(form, *header);
    Store(form + exchange::kHeadSize, bsize, Order::Network);
    std::memcpy(form + exchange::kBitmapOffset, BytesOf(header) + layout.entries + kBloomLengthSize, bsize);
    if (GetNudcid() != 0) {
        WriteList(form + exchange::kBitmapOffset + bsize, BytesOf(header) + layout.udcids, GetNudcid());
    }
    StoreBodyChecksum(form, length);
    *outLength = length;
    return CR_STATUS_OK;
}

void DORecord::SerializedDORecordFree(void** serialized) {
    if (serialized) {
        std::free(*serialized);
        *serialized = nullptr;
    }
}
