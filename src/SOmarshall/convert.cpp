// Conversion of segment records between host and network order.

#include "SOmarshall/layout.h"

namespace crrecord::segment {

namespace {

void SwapTaskIds(unsigned char* to, unsigned char const* from, std::uint32_t count) noexcept {
    for (std::uint64_t i = 0; i < count; ++i) {
        CopySwapped<std::uint64_t>(to + i * kTaskIdSize, from + i * kTaskIdSize);
    }
}

void copyDO(_SegmentDBRecord* destination, _SegmentDBRecord const* source, std::uint32_t destinationTaskIds,
            std::uint32_t sourceTaskIds, std::uint32_t nfp) noexcept {
    if (nfp == 0) {
        return; // the task ids of an SORecord may end outside of its buffer
    }
    unsigned char* const to = BytesOf(destination) + FingerprintOffset(destinationTaskIds);
    unsigned char const* const from = BytesOf(source) + FingerprintOffset(sourceTaskIds);
    if (to != from) {
        std::memmove(to, from, std::uint64_t{CRFPDigestSize(source->fptype)} * nfp);
    }
}

void ConvertFields(unsigned char* to, unsigned char const* from) noexcept {
    ForEachIndex<kFields>([=]<std::size_t I> {
        constexpr Field field = kFields[I];
        if constexpr (field.handling == Handling::Kept) {
            if (to != from) {
                std::memcpy(to + field.offset, from + field.offset, field.width);
            }
        } else if constexpr (field.handling != Handling::Left) {
            SwapBytes<field.width>(to + field.offset, from + field.offset);
        }
    });
}

void Convert(_SegmentDBRecord* destination, _SegmentDBRecord const* source, unsigned int options,
             Order sourceOrder) noexcept {
    std::uint32_t const taskIds = InOrder(source->ntaskids, sourceOrder);
    std::uint32_t const nfp = InOrder(source->nfp, sourceOrder);
    bool const strip = (options & CR_SO_STRIP_TASKIDS) != 0;
    std::uint64_t const strippedSize = RecordSize(0, nfp, source->fptype);

    ConvertFields(BytesOf(destination), BytesOf(source));
    if (strip) {
        destination->ntaskids = 0;
        destination->recsize = InOrder(static_cast<std::uint32_t>(strippedSize), Other(sourceOrder));
    } else {
        SwapTaskIds(BytesOf(destination) + CR_SO_FIXED_SIZE, BytesOf(source) + CR_SO_FIXED_SIZE, taskIds);
    }
    copyDO(destination, source, strip ? 0 : taskIds, taskIds, nfp);
    if (strip && taskIds != 0 && destination == source) {
        // The spare slot now has old task ids or fingerprints. A separate destination keeps its slot.
        std::memset(BytesOf(destination) + strippedSize - kSpareSize, 0, kSpareSize);
    }
}

} // namespace

} // namespace crrecord::segment

void SegmentRecordHton(_SegmentDBRecord* destination, _SegmentDBRecord const* source, unsigned int options) noexcept {
    crrecord::segment::Convert(destination, source, options, crrecord::Order::Host);
}

void SegmentRecordNtoh(_SegmentDBRecord* destination, _SegmentDBRecord const* source, unsigned int options) noexcept {
    crrecord::segment::Convert(destination, source, options, crrecord::Order::Network);
}
