// DO types: how a record describes its segments.

#pragma once

#include <crrecord/export.h>
#include <crrecord/reader.h>

#include <array>

// | type | entry of a segment                        | size of a segment                | offset          |
// |------|-------------------------------------------|----------------------------------|-----------------|
// | 0, 1 | fingerprint                               | ssize; of the last what remains  | none            |
// | 2    | fingerprint, 32-bit size                  | stored                           | none            |
// | 3    | fingerprint, 32-bit size, 64-bit offset   | stored                           | 64 bits, stored |
// | 4    | none: a bloom bitmap instead              | none                             | none            |
// | 5    | fingerprint, 32-bit size, 32-bit offset   | stored                           | 32 bits, stored |
//
// Records store these values, so they never change.
inline constexpr unsigned char CR_DO_TYPE_ORIGINAL = 0;
inline constexpr unsigned char CR_DO_TYPE_NO_SIZE = 1;
inline constexpr unsigned char CR_DO_TYPE_NO_OFFSET = 2;
inline constexpr unsigned char CR_DO_TYPE_8_BYTE_OFFSET = 3;
inline constexpr unsigned char CR_DO_TYPE_BLOOM_FILTER = CRR_DOTYPE_BLOOM;
inline constexpr unsigned char CR_DO_TYPE_4_BYTE_OFFSET = 5;
inline constexpr unsigned char CR_DO_TYPE_LAST = CR_DO_TYPE_4_BYTE_OFFSET; // the greatest DO type
inline constexpr unsigned char CR_DO_TYPE_INVALID = 255;

// Returns: non-zero for the DO types 0 to 5. The argument is not cut to 8 bits: 259 is not taken for 3.
CRRECORD_API int CRDOTypeIsValid(unsigned int dotype) noexcept;

namespace crrecord {

// How the segments make up the object (reader.h).
enum class ListCheck : unsigned char {
    None = CRR_CHECK_NONE,
    Product = CRR_CHECK_PRODUCT,
    Sum = CRR_CHECK_SUM,
    Offsets = CRR_CHECK_OFFSETS,
};

struct DOType {
    char const* name;
    unsigned char sizeWidth;   // bytes of the size in an entry: 0 or 4
    unsigned char offsetWidth; // bytes of the offset in an entry: 0, 4 or 8
    ListCheck check;
};

constexpr DOType NamedDOType(char const* name, unsigned int dotype) noexcept {
    return {name, static_cast<unsigned char>(crr_size_width(dotype)),
            static_cast<unsigned char>(crr_offset_width(dotype)), static_cast<ListCheck>(crr_list_check(dotype))};
}

// The index is the DO type.
inline constexpr std::array<DOType, CR_DO_TYPE_LAST + 1> kDOTypes{
    NamedDOType("CR_DO_TYPE_ORIGINAL", CR_DO_TYPE_ORIGINAL),
    NamedDOType("CR_DO_TYPE_NO_SIZE", CR_DO_TYPE_NO_SIZE),
    NamedDOType("CR_DO_TYPE_NO_OFFSET", CR_DO_TYPE_NO_OFFSET),
    NamedDOType("CR_DO_TYPE_8_BYTE_OFFSET", CR_DO_TYPE_8_BYTE_OFFSET),
    NamedDOType("CR_DO_TYPE_BLOOM_FILTER", CR_DO_TYPE_BLOOM_FILTER),
    NamedDOType("CR_DO_TYPE_4_BYTE_OFFSET", CR_DO_TYPE_4_BYTE_OFFSET),
};

static_assert(CR_DO_TYPE_LAST == CRR_DOTYPE_LAST && kDOTypes.back().name != nullptr, "a DO type without a row");

// A value that is no DO type stores neither size nor offset and is not checked.
constexpr DOType DOTypeOf(unsigned int dotype) noexcept {
    return dotype < kDOTypes.size() ? kDOTypes[dotype] : DOType{"unknown", 0, 0, ListCheck::None};
}

constexpr bool IsBloom(unsigned int dotype) noexcept {
    return dotype == CR_DO_TYPE_BLOOM_FILTER;
}

} // namespace crrecord
