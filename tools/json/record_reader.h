// What the readers of both kinds share: the members with which every line begins, and the numbers of the fixed part.

#pragma once

#include "base/byteorder.h"
#include "json/members.h"
#include "json/parser.h"

#include <algorithm>

namespace crrecord::tool::json {

// Reads members into the fixed part of a record in host order. What can only be said when all of them are known is
// for the readers of each kind.
class RecordReader {
public:
    RecordReader(Parser& parser, unsigned char* fixed) : parser_(parser), fixed_(fixed) {}

    // The order in which the record was found.
    Order FoundIn() const { return order_; }

    void ReadSchema(Value value, MemberFacts const&);
    void ReadKind(Value value, MemberFacts const&);
    void ReadOrder(Value value, MemberFacts const&);
    void ReadNumber(Value value, MemberFacts const& member);
    // Of a member that follows from others: what the line says of it is compared when these are known.
    void ReadDerived(Value value, MemberFacts const& member);
    // Members that say where the record was found.
    void PassText(Value value, MemberFacts const&) { parser_.String(value, "a string"); }
    void PassNumber(Value value, MemberFacts const& member) { parser_.Number(value, member.least, member.most); }
    void PassDecimal(Value value, MemberFacts const&) { parser_.Decimal(value); }
    void PassBool(Value value, MemberFacts const&) { parser_.Bool(value); }

protected:
    // Compares the derived members with the fixed part, where the right values are by now.
    void CheckDerived() const;
    void Start() { derived_.clear(); }

    Parser& parser_;

private:
    struct Derived {
        MemberFacts const* member;
        std::uint64_t value;
        std::uint64_t position;
    };

    unsigned char* fixed_;
    Order order_ = Order::Host;
    std::vector<Derived> derived_;
};

// Largest number of so many bytes.
constexpr std::uint64_t LargestOf(unsigned int width) noexcept {
    return std::numeric_limits<std::uint64_t>::max() >> (64 - 8 * width);
}

// The members of every line.
template <class Reader>
constexpr std::array<Member<Reader>, 7> CommonMembers() {
    return {{{{"schema"}, &Reader::ReadSchema},
             {{"file", Need::Optional}, &Reader::PassText},
             {{"record", Need::Optional, 0, 0, 1, LargestOf(8)}, &Reader::PassNumber},
             {{"offset", Need::Optional}, &Reader::PassDecimal},
             {{"kind"}, &Reader::ReadKind},
             {{"order"}, &Reader::ReadOrder},
             {{"valid", Need::Optional}, &Reader::PassBool}}};
}

// Those that are numbers of the fixed part.
template <class Reader, std::size_t N>
constexpr std::array<Member<Reader>, N> NumberMembers(std::array<NumberMember, N> const& numbers) {
    std::array<Member<Reader>, N> members{};
    for (std::size_t i = 0; i < N; ++i) {
        NumberMember const& number = numbers[i];
        using Use = typename Member<Reader>::Use;
        Use const read = &Reader::ReadNumber;
        Use const readDerived = &Reader::ReadDerived;
        members[i] = {{number.name, number.derived ? Need::Optional : Need::Required, number.offset, number.width, 0,
                       LargestOf(number.width)},
                      number.derived ? readDerived : read};
    }
    return members;
}

// One table out of several.
template <class Reader, std::size_t... N>
constexpr auto Joined(std::array<Member<Reader>, N> const&... parts) {
    std::array<Member<Reader>, (N + ...)> all{};
    std::size_t next = 0;
    auto const append = [&](auto const& part) {
        for (auto const& member : part) {
            all[next++] = member;
        }
    };
    (append(parts), ...);
    return all;
}

// The row of a member of a table.
template <class Reader, std::size_t N>
constexpr std::size_t RowOf(std::array<Member<Reader>, N> const& table, std::string_view name) {
    std::size_t row = 0;
    while (table[row].name != name) {
        ++row;
    }
    return row;
}

} // namespace crrecord::tool::json
