#include "json/record_reader.h"

#include "record/record_findings.h"

#include <fmt/format.h>

namespace crrecord::tool::json {

namespace {

void StoreNumber(unsigned char* to, unsigned int width, std::uint64_t number) {
    switch (width) {
    case 1: *to = static_cast<unsigned char>(number); break;
    case 2: Store(to, static_cast<std::uint16_t>(number)); break;
    case 4: Store(to, static_cast<std::uint32_t>(number)); break;
    default: Store(to, number); break;
    }
}

std::uint64_t LoadNumber(unsigned char const* from, unsigned int width) {
    switch (width) {
    case 1: return *from;
    case 2: return Load<std::uint16_t>(from);
    case 4: return Load<std::uint32_t>(from);
    default: return Load<std::uint64_t>(from);
    }
}

} // namespace

void RecordReader::ReadSchema(Value value, MemberFacts const&) {
    parser_.Number(value, kJsonSchema, kJsonSchema);
}

void RecordReader::ReadKind(Value value, MemberFacts const&) {
    std::string_view const kind = parser_.String(value, "a string");
    if (kind != NameOf(Kind::DataObject) && kind != NameOf(Kind::Segment)) {
        parser_.FailExpecting(value, R"("do" or "segment")");
    }
}

void RecordReader::ReadOrder(Value value, MemberFacts const&) {
    char const* const expected = R"("host" or "network")";
    std::string_view const order = parser_.String(value, expected);
    order_ = order == NameOf(Order::Network) ? Order::Network : Order::Host;
    if (order != NameOf(order_)) {
        parser_.FailExpecting(value, expected);
    }
}

void RecordReader::ReadNumber(Value value, MemberFacts const& member) {
    std::uint64_t const number =
        member.width == 8 ? parser_.Decimal(value, member.most) : parser_.Number(value, member.least, member.most);
    StoreNumber(fixed_ + member.offset, member.width, number);
}

void RecordReader::ReadDerived(Value value, MemberFacts const& member) {
    ReadNumber(value, member);
    derived_.push_back({&member, LoadNumber(fixed_ + member.offset, member.width), parser_.PositionOf(value)});
}

void RecordReader::CheckDerived() const {
    for (Derived const& derived : derived_) {
        std::uint64_t const right = LoadNumber(fixed_ + derived.member->offset, derived.member->width);
        if (derived.value != right) {
            Parser::FailMember(derived.position, derived.member->name,
                               fmt::format("found {}, expected {}", derived.value, right));
        }
    }
}

} // namespace crrecord::tool::json
