// The common code of the readers of both kinds of records: the members of every line, and the numbers of the fixed
// part.

#pragma once

#include "base/byteorder.h"
#include "json/members.h"
#include "json/parser.h"

namespace crrecord::tool::json {

// Each makes a record in host order from the line in the parser. Returns: the order that the line names.
Order ReadObject(Parser& parser, std::vector<unsigned char>& record);
Order ReadSegmentRecord(Parser& parser, std::vector<unsigned char>& record);

// Reads members into the fixed part of a record in host order. Checks that need other members are in ReadObject and
// ReadSegmentRecord.
struct RecordReader {
    RecordReader(Parser& from, unsigned char* bytes) : parser(from), fixed(bytes) {}

    void ReadSchema(Value value, MemberFacts const&);
    void ReadKind(Value value, MemberFacts const&);
    void ReadOrder(Value value, MemberFacts const&);
    void ReadNumber(Value value, MemberFacts const& member);
    // A member that follows from others. CheckDerived compares it.
    void ReadDerived(Value value, MemberFacts const& member);
    // Members that name the record's origin. They are checked and not stored.
    void PassText(Value value, MemberFacts const&) { parser.String(value, "a string"); }
    void PassNumber(Value value, MemberFacts const& member) { parser.Number(value, member.least, member.most); }
    void PassDecimal(Value value, MemberFacts const&) { parser.Decimal(value); }
    void PassBool(Value value, MemberFacts const&) { parser.Bool(value); }

    // Compares the derived members with the fixed part, which has the right values now.
    void CheckDerived() const;

    struct Derived {
        MemberFacts const* member;
        std::uint64_t value;
        std::uint64_t position;
    };

    Parser& parser;
    unsigned char* fixed;
    Order order = Order::Host;
    std::vector<Derived> derived;
};

// The largest number of `width` bytes.
constexpr std::uint64_t LargestOf(unsigned int width) noexcept {
    return std::numeric_limits<std::uint64_t>::max() >> (64 - 8 * width);
}

// The members of every line, the numbers of the fixed part, and those of one kind of record.
template <class Reader, std::size_t N, std::size_t M>
constexpr auto MemberTable(std::array<NumberMember, N> const& numbers, Member<Reader> const (&own)[M]) {
    std::array<Member<Reader>, 10 + N + M> members{
        {{{"schema"}, &Reader::ReadSchema},
         {{"file", Need::Optional}, &Reader::PassText},
         {{"file_hex", Need::Optional}, &Reader::PassText},
         {{"record", Need::Optional, 0, 0, 1, LargestOf(8)}, &Reader::PassNumber},
         {{"offset", Need::Optional}, &Reader::PassDecimal},
         {{"name", Need::Optional}, &Reader::PassText},
         {{"name_hex", Need::Optional}, &Reader::PassText},
         {{"kind"}, &Reader::ReadKind},
         {{"order"}, &Reader::ReadOrder},
         {{"valid", Need::Optional}, &Reader::PassBool}}};
    auto at = members.begin() + 10;
    for (auto const& [name, offset, width, derived] : numbers) {
        using Use = typename Member<Reader>::Use;
        Use const read = derived ? Use(&Reader::ReadDerived) : Use(&Reader::ReadNumber);
        *at++ = {{name, derived ? Need::Optional : Need::Required, offset, width, 0, LargestOf(width)}, read};
    }
    std::copy(std::begin(own), std::end(own), at);
    return members;
}

template <class Reader, std::size_t N>
constexpr std::size_t RowOf(std::array<Member<Reader>, N> const& table, std::string_view name) {
    std::size_t row = 0;
    while (table[row].name != name) {
        ++row;
    }
    return row;
}

} // namespace crrecord::tool::json
