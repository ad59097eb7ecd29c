// The accessors of a segment by its index, inline. Part of DORecord.h, which describes them.

#pragma once

#include <crrecord/DORecord.h>
#include <crrecord/entry_layout.h>

// Precondition: `offset` is below 2^40.
inline unsigned char const* DORecord::BytesAt(unsigned long offset, unsigned int width) const {
    return offset + width <= bufferSize ? reinterpret_cast<unsigned char const*>(header) + offset : nullptr;
}

template <class T>
T DORecord::NumberInEntry(unsigned int i, unsigned int width, unsigned int position, T none) const {
    if (width != sizeof(T)) {
        return none;
    }
    unsigned char const* const at = BytesAt(crrecord::EntryLayoutOf(header).Entry(i) + position, sizeof(T));
    return at ? crrecord::Load<T>(at, crrecord::OrderFromFlag(networkOrder)) : none;
}

inline crfp_digest_t const& DORecord::GetSegmentFP(unsigned int i) const {
    static constexpr crfp_digest_t kOutside{};
    crrecord::DOEntryLayout const& entry = crrecord::EntryLayoutOf(header);
    unsigned char const* const at = BytesAt(entry.Entry(i), sizeof kOutside);
    return at ? *reinterpret_cast<crfp_digest_t const*>(at) : kOutside;
}

inline unsigned long DORecord::GetSegmentDCID(unsigned int i) const {
    std::uint32_t const count = crrecord::EntriesOf(header);
    crrecord::DOEntryLayout const& entry = crrecord::EntryLayoutOf(header);
    unsigned char const* const at = BytesAt(entry.Entry(count) + std::uint64_t{i} * 8, 8);
    return at ? crrecord::Load<std::uint64_t>(at) : 0;
}

inline unsigned int DORecord::GetSegmentSize(unsigned int i) const {
    crrecord::DOEntryLayout const& entry = crrecord::EntryLayoutOf(header);
    if (entry.sizeWidth == 0) {
        // GetSize and GetSsize would be calls.
        crrecord::Order const order = crrecord::OrderFromFlag(networkOrder);
        return entry.DerivedSize(i, crrecord::EntriesOf(header), crrecord::InOrder(header->size, order),
                                 crrecord::InOrder(header->ssize, order));
    }
    return NumberInEntry<std::uint32_t>(i, entry.sizeWidth, entry.fingerprint, crrecord::kNoSize);
}

inline unsigned long DORecord::GetSegmentOffset(unsigned int i) const {
    crrecord::DOEntryLayout const& entry = crrecord::EntryLayoutOf(header);
    return NumberInEntry<std::uint64_t>(i, entry.offsetWidth, entry.offset, crrecord::kNoOffset);
}

inline unsigned int DORecord::GetSegmentObjectOffset(unsigned int i) const {
    crrecord::DOEntryLayout const& entry = crrecord::EntryLayoutOf(header);
    return NumberInEntry<std::uint32_t>(i, entry.offsetWidth, entry.offset, crrecord::kNoObjectOffset);
}
