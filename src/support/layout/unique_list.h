// The unique DCID list: checksum, count, and entries of a DCID and the object's bytes in that container.

#pragma once

#include "base/adler32.h"
#include "support/layout/record_layout.h"

namespace crrecord {

struct UniqueEntry {
    std::uint64_t dcid;
    std::uint64_t bytes;
};

inline std::uint32_t UniqueCount(unsigned char const* list, Order order) noexcept {
    return Load<std::uint32_t>(list + kUniqueCountOffset, order);
}

inline UniqueEntry LoadUniqueEntry(unsigned char const* list, std::uint64_t i, Order order) noexcept {
    unsigned char const* const entry = list + kUniqueHeadSize + i * kUniqueEntrySize;
    return {Load<std::uint64_t>(entry, order), Load<std::uint64_t>(entry + 8, order)};
}

inline void StoreUniqueEntry(unsigned char* list, std::uint64_t i, UniqueEntry const& value, Order order) noexcept {
    unsigned char* const entry = list + kUniqueHeadSize + i * kUniqueEntrySize;
    Store(entry, value.dcid, order);
    Store(entry + 8, value.bytes, order);
}

// Returns: the checksum that a record stores, which covers the count and all entries.
inline std::uint32_t UniqueListChecksum(unsigned char const* list, std::uint32_t count) noexcept {
    return Adler32(list + kUniqueCountOffset,
                   kUniqueHeadSize - kUniqueCountOffset + std::uint64_t{kUniqueEntrySize} * count);
}

} // namespace crrecord
