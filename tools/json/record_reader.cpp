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

} // namespace

void RecordReader::ReadSchema(Value value, MemberFacts const&) {
    parser.Number(value, kJsonSchema, kJsonSchema);
}

void RecordReader::ReadKind(Value value, MemberFacts const&) {
    std::string_view const kind = parser.String(value, "a string");
    if (kind != NameOf(Kind::DataObject) && kind != NameOf(Kind::Segment)) {
        parser.FailExpecting(value, R"("do" or "segment")");
    }
}

void RecordReader::ReadOrder(Value value, MemberFacts const&) {
    char const* const expected = R"("host" or "network")";
    std::string_view const name = parser.String(value, expected);
    order = name == NameOf(Order::Network) ? Order::Network : Order::Host;
    if (name != NameOf(order)) {
        parser.FailExpecting(value, expected);
    }
}

void RecordReader::ReadNumber(Value value, MemberFacts const& member) {
    std::uint64_t const number =
        member.width == 8 ? parser.Decimal(value, member.most) : parser.Number(value, member.least, member.most);
    StoreNumber(fixed + member.offset, member.width, number);
}

void RecordReader::ReadDerived(Value value, MemberFacts const& member) {
    ReadNumber(value, member);
    derived.push_back({&member, LoadNumber(fixed + member.offset, member.width), parser.PositionOf(value)});
}

void RecordReader::CheckDerived() const {
    for (auto const& [member, found, position] : derived) {
        std::uint64_t const expected = LoadNumber(fixed + member->offset, member->width);
        if (found != expected) {
            Parser::FailMember(position, member->name, fmt::format("found {}, expected {}", found, expected));
        }
    }
}

} // namespace crrecord::tool::json
