// The entries of a DO record's segments: the positions of their fields, and their number.

#pragma once

#include <crrecord/DORecordHeader.h>
#include <crrecord/byte_order.h>
#include <crrecord/fingerprint.h>

#include <algorithm>
#include <array>
#include <cstdint>

namespace crrecord {

// Size and offset of a segment whose record stores none.
inline constexpr std::uint32_t kNoSize = 0xffffffff;
inline constexpr std::uint32_t kNoObjectOffset = 0xffffffff;
inline constexpr std::uint64_t kNoOffset = 0xffffffffffffffff;

// Positions are bytes from the start of an entry, where its fingerprint is.
struct DOEntryLayout {
    unsigned char fingerprint = 0; // bytes of the fingerprint, and the position of the size
    unsigned char offset = 0;      // position of the offset, even if there is none
    unsigned char stride = 0;      // bytes of the entry
    unsigned char sizeWidth = 0;   // bytes of the size: 0 or 4
    unsigned char offsetWidth = 0; // bytes of the offset: 0, 4 or 8
    ListCheck check = ListCheck::None;

    constexpr DOEntryLayout() noexcept = default;
    // The entries of a record, and any entries.
    constexpr DOEntryLayout(unsigned int dotype, unsigned int fptype) noexcept
        : DOEntryLayout(crr_entry_of(dotype, CRFPDigestSize(fptype))) {}
    constexpr explicit DOEntryLayout(crr_entry const& entry) noexcept
        : fingerprint(static_cast<unsigned char>(entry.fingerprint)), offset(static_cast<unsigned char>(entry.offset)),
          stride(static_cast<unsigned char>(entry.stride)), sizeWidth(static_cast<unsigned char>(entry.size_width)),
          offsetWidth(static_cast<unsigned char>(entry.offset_width)), check(static_cast<ListCheck>(entry.check)) {}

    // Bytes from the start of the record to entry `i`, and, for the number of entries, to their end.
    constexpr std::uint64_t Entry(std::uint64_t i) const noexcept { return CR_DO_HEADER_SIZE + i * stride; }

    // Size of segment `i` of `count` if entries store none: `ssize`, and the rest of the object for the last segment.
    constexpr std::uint32_t DerivedSize(std::uint32_t i, std::uint32_t count, std::uint64_t objectSize,
                                        std::uint64_t ssize) const noexcept {
        return check == ListCheck::Product ? crr_derived_size(i, count, objectSize, ssize) : kNoSize;
    }
};

// The layouts of all entries, by DO type and by whether the fingerprint has 32 bytes; the last row is for values that
// are no DO type.
inline constexpr auto kEntryLayouts = [] {
    std::array<std::array<DOEntryLayout, 2>, kDOTypes.size() + 1> layouts{};
    for (unsigned int dotype = 0; dotype <= kDOTypes.size(); ++dotype) {
        layouts[dotype] = {DOEntryLayout(dotype, CR_FP_TYPE_MD5), DOEntryLayout(dotype, CR_FP_TYPE_SHA256)};
    }
    return layouts;
}();

// The layout of a record's entries by its header, in either order.
inline DOEntryLayout const& EntryLayoutOf(DORecordHeader const* header) noexcept {
    return kEntryLayouts[std::min<std::size_t>(header->dotype, kDOTypes.size())][header->fptype == CR_FP_TYPE_SHA256];
}

// A header is in network order exactly when its type, read as big-endian, is that of a DO record.
inline Order OrderOf(DORecordHeader const* header) noexcept {
    return ByteSwapped(header->type) == CR_DO_RECORD_TYPE ? Order::Network : Order::Host;
}

// Number of entries by the header, in either order.
inline std::uint32_t EntriesOf(DORecordHeader const* header) noexcept {
    std::uint32_t const nfp = header->nfp;
    return IsBloom(header->dotype) ? 0 : OrderOf(header) == Order::Host ? nfp : ByteSwapped(nfp);
}

} // namespace crrecord
