// The members of a record's JSON object that are numbers at a fixed offset of the record: one table for each kind, for
// the writer and the reader.

#pragma once

#include "SOmarshall/layout.h"
#include "support/layout/header_fields.h"

#include <crrecord/DORecordHeader.h>

#include <algorithm>
#include <array>

namespace crrecord::tool::json {

struct NumberMember {
    std::string_view name;
    std::uint16_t offset;
    std::uint16_t width; // bytes; a number of 8 bytes is a decimal string
    bool derived;        // follows from other members and is optional in the input
};

constexpr bool IsDerived(std::string_view name) {
    constexpr std::string_view kDerived[] = {"recsize", "ntaskid", "ntaskids",  "nfp",
                                             "nudcid",  "nds",     "trefssize", "bsize"};
    return std::ranges::find(kDerived, name) != std::end(kDerived);
}

// The fields of up to 8 bytes. The others are no numbers: the last one of a DO record's header, and the key.
template <std::size_t N>
constexpr auto NumberMembersOf(auto const& fields) {
    std::array<NumberMember, N> members{};
    std::size_t next = 0;
    for (auto const& field : fields) {
        if (field.width <= 8 && next != N) {
            members.at(next++) = {field.name, field.offset, field.width, IsDerived(field.name)};
        }
    }
    return members;
}
inline constexpr auto kObjectMembers = NumberMembersOf<kHeaderFields.size() - 1>(kHeaderFields);
inline constexpr auto kSegmentMembers = NumberMembersOf<segment::kFields.size() - 1>(segment::kFields);

inline std::uint64_t LoadNumber(unsigned char const* at, unsigned int width) noexcept {
    switch (width) {
    case 1: return *at;
    case 2: return Load<std::uint16_t>(at);
    case 4: return Load<std::uint32_t>(at);
    default: return Load<std::uint64_t>(at);
    }
}

} // namespace crrecord::tool::json
