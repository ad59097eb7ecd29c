// The fields of a DO record's header: name, offset, width, and whether conversion between byte orders swaps them.

#pragma once

#include <crrecord/DORecordHeader.h>

#include <array>
#include <string_view>

namespace crrecord {

struct HeaderField {
    char const* name;
    unsigned short offset;
    unsigned short width;
    bool swapped;
};

#define CRRECORD_FIELD(member, swapped)                                                                                \
    HeaderField {                                                                                                      \
#member, offsetof(DORecordHeader, member), sizeof(DORecordHeader::member), swapped                             \
    }

// The legacy counts and arrays are never byte-swapped.
inline constexpr std::array kHeaderFields{
    CRRECORD_FIELD(type, true),      CRRECORD_FIELD(flags, true),      CRRECORD_FIELD(recsize, true),
    CRRECORD_FIELD(reserved, false), CRRECORD_FIELD(checktime, true),  CRRECORD_FIELD(CID, true),
    CRRECORD_FIELD(size, true),      CRRECORD_FIELD(ssize, true),      CRRECORD_FIELD(CRC, true),
    CRRECORD_FIELD(ctime, true),     CRRECORD_FIELD(mtime, true),      CRRECORD_FIELD(ntaskid, false),
    CRRECORD_FIELD(nfp, true),       CRRECORD_FIELD(nudcid, true),     CRRECORD_FIELD(nds, false),
    CRRECORD_FIELD(trefssize, true), CRRECORD_FIELD(bsize, true),      CRRECORD_FIELD(fptype, false),
    CRRECORD_FIELD(dotype, false),   CRRECORD_FIELD(reserved2, false),
};

#undef CRRECORD_FIELD

// The fields fill the header without a gap.
static_assert([] {
    std::size_t end = 0;
    for (HeaderField const& field : kHeaderFields) {
        if (field.offset != end) {
            return false;
        }
        end += field.width;
    }
    return end == CR_DO_HEADER_SIZE;
}());

// Returns: the field named `name`.
consteval HeaderField HeaderFieldOf(std::string_view name) {
    for (HeaderField const& field : kHeaderFields) {
        if (field.name == name) {
            return field;
        }
    }
    throw "no such field";
}

} // namespace crrecord
