// The DO types: what the entry of a segment stores, and how the segment list is checked.

#pragma once

#include <crrecord/DORecordHeader.h>

#include <array>

namespace crrecord {

// How the segments make up the object.
enum class ListCheck : unsigned char {
    None,    // not checked
    Product, // sizes are derived: the segment size times the number of segments is at least the object's size
    Sum,     // the stored sizes add up to the object's size
    Offsets, // the segments ascend, do not overlap, and end within the object
};

struct DOType {
    char const* name;
    unsigned char sizeWidth;   // bytes of the size in an entry: 0 or 4
    unsigned char offsetWidth; // bytes of the offset in an entry: 0, 4 or 8
    ListCheck check;
};

// The index is the DO type.
inline constexpr std::array<DOType, CR_DO_TYPE_LAST + 1> kDOTypes{{
    {"CR_DO_TYPE_ORIGINAL", 0, 0, ListCheck::Product},
    {"CR_DO_TYPE_NO_SIZE", 0, 0, ListCheck::Product},
    {"CR_DO_TYPE_NO_OFFSET", 4, 0, ListCheck::Sum},
    {"CR_DO_TYPE_8_BYTE_OFFSET", 4, 8, ListCheck::Offsets},
    {"CR_DO_TYPE_BLOOM_FILTER", 0, 0, ListCheck::None},
    {"CR_DO_TYPE_4_BYTE_OFFSET", 4, 4, ListCheck::Sum},
}};

// A value that is no DO type stores neither size nor offset and is not checked.
constexpr DOType DOTypeOf(unsigned int dotype) noexcept {
    return dotype < kDOTypes.size() ? kDOTypes[dotype] : DOType{"unknown", 0, 0, ListCheck::None};
}

constexpr bool IsBloom(unsigned int dotype) noexcept {
    return dotype == CR_DO_TYPE_BLOOM_FILTER;
}

} // namespace crrecord
