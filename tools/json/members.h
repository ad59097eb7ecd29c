// The members of a record's JSON object that are numbers at a fixed place of the record: one table for each kind, used
// by the writer and the reader.

#pragma once

#include "SOmarshall/layout.h"

#include <crrecord/DORecordHeader.h>

#include <array>

namespace crrecord::tool::json {

struct NumberMember {
    std::string_view name;
    std::uint16_t offset;
    std::uint16_t width; // bytes; 8 are a decimal string
    bool derived;        // follows from other members, and may be left out when it is read
};

#define CRRECORD_MEMBER(member, derived)                                                                               \
    NumberMember {                                                                                                     \
#member, offsetof(DORecordHeader, member), sizeof(DORecordHeader::member), derived                             \
    }

inline constexpr std::array kObjectMembers{
    CRRECORD_MEMBER(type, false),     CRRECORD_MEMBER(flags, false),     CRRECORD_MEMBER(recsize, true),
    CRRECORD_MEMBER(reserved, false), CRRECORD_MEMBER(checktime, false), CRRECORD_MEMBER(CID, false),
    CRRECORD_MEMBER(size, false),     CRRECORD_MEMBER(ssize, false),     CRRECORD_MEMBER(CRC, false),
    CRRECORD_MEMBER(ctime, false),    CRRECORD_MEMBER(mtime, false),     CRRECORD_MEMBER(ntaskid, true),
    CRRECORD_MEMBER(nfp, true),       CRRECORD_MEMBER(nudcid, true),     CRRECORD_MEMBER(nds, true),
    CRRECORD_MEMBER(trefssize, true), CRRECORD_MEMBER(bsize, true),      CRRECORD_MEMBER(fptype, false),
    CRRECORD_MEMBER(dotype, false),
};

#undef CRRECORD_MEMBER

// All fields of a segment record but the key, which is no number.
inline constexpr auto kSegmentMembers = [] {
    std::array<NumberMember, segment::kFields.size() - 1> members{};
    std::size_t next = 0;
    for (segment::Field const& field : segment::kFields) {
        std::string_view const name = field.name;
        if (field.width <= 8) {
            members.at(next++) = {name, field.offset, field.width,
                                  name == "recsize" || name == "ntaskids" || name == "nfp"};
        }
    }
    return members;
}();

// The number at `at`.
template <std::uint16_t Width>
auto LoadMember(unsigned char const* at) noexcept {
    if constexpr (Width == 1) {
        return *at;
    } else if constexpr (Width == 2) {
        return Load<std::uint16_t>(at);
    } else if constexpr (Width == 4) {
        return Load<std::uint32_t>(at);
    } else {
        static_assert(Width == 8);
        return Load<std::uint64_t>(at);
    }
}

} // namespace crrecord::tool::json
