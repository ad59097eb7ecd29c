// The members of a record's JSON object that are numbers at a fixed place of the record: one table for each kind, used
// by the writer and the reader.

#pragma once

#include "SOmarshall/layout.h"
#include "support/layout/header_fields.h"

#include <crrecord/DORecordHeader.h>

#include <array>

namespace crrecord::tool::json {

struct NumberMember {
    std::string_view name;
    std::uint16_t offset;
    std::uint16_t width; // bytes; 8 are a decimal string
    bool derived;        // follows from other members, and may be left out when it is read
};

// Follow from other members of a record's JSON object.
constexpr bool IsDerived(std::string_view name) {
    for (std::string_view const derived :
         {"recsize", "ntaskid", "ntaskids", "nfp", "nudcid", "nds", "trefssize", "bsize"}) {
        if (name == derived) {
            return true;
        }
    }
    return false;
}

// All fields of a DO record's header but the last, which is no number.
inline constexpr auto kObjectMembers = [] {
    std::array<NumberMember, kHeaderFields.size() - 1> members{};
    for (std::size_t i = 0; i < members.size(); ++i) {
        HeaderField const& field = kHeaderFields[i];
        members[i] = {field.name, field.offset, field.width, IsDerived(field.name)};
    }
    return members;
}();

// All fields of a segment record but the key, which is no number.
inline constexpr auto kSegmentMembers = [] {
    std::array<NumberMember, segment::kFields.size() - 1> members{};
    std::size_t next = 0;
    for (segment::Field const& field : segment::kFields) {
        std::string_view const name = field.name;
        if (field.width <= 8) {
            members.at(next++) = {name, field.offset, field.width, IsDerived(name)};
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
