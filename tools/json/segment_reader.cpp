#include "json/segment_reader.h"

#include "support/layout/record_layout.h"

#include <fmt/format.h>

namespace crrecord::tool::json {

namespace {

constexpr auto kMembers = [] {
    using Row = Member<SegmentReader>;
    auto members = Joined(
        CommonMembers<SegmentReader>(), NumberMembers<SegmentReader>(kSegmentMembers),
        std::array<Row, 4>{{{{"key"}, &SegmentReader::ReadKey},
                            {{"taskids"}, &SegmentReader::CountTaskIds, &SegmentReader::PlaceTaskIds},
                            {{"fingerprints"}, &SegmentReader::CountFingerprints, &SegmentReader::PlaceFingerprints},
                            {{"spare"}, &SegmentReader::ReadSpare}}});
    Row& type = members[RowOf(members, "type")];
    type.least = type.most = CR_SO_RECORD_TYPE;
    members[RowOf(members, "fptype")].most = CR_FP_TYPE_LAST;
    return members;
}();

} // namespace

void SegmentReader::Read(std::vector<unsigned char>& record) {
    Start();
    parser_.ReadMembers(parser_.Root(), kMembers, *this);
    parser_.End();
    Place(record);
    parser_.PlaceMembers(parser_.Root(), kMembers, *this);
    Store(bytes_ + record.size() - segment::kSpareSize, spare_, FoundIn());
}

void SegmentReader::Place(std::vector<unsigned char>& record) {
    // No line has room for so many elements that this wraps.
    std::uint64_t const size =
        CR_SO_RECORD_SIZE + segment::kTaskIdSize * taskIds_ + CRFPDigestSize(fixed_.fptype) * fingerprints_;
    if (size > kLargestRecord) {
        Parser::FailMember(0, "", fmt::format("a record of {} bytes, expected at most {}", size, kLargestRecord));
    }
    fixed_.recsize = static_cast<std::uint32_t>(size);
    fixed_.ntaskids = static_cast<std::uint32_t>(taskIds_);
    fixed_.nfp = static_cast<std::uint32_t>(fingerprints_);
    CheckDerived();
    record.resize(size);
    bytes_ = record.data();
    std::memcpy(bytes_, &fixed_, sizeof fixed_);
}

void SegmentReader::ReadKey(Value value, MemberFacts const&) {
    if (value.raw_json_token().starts_with("\"masked\"")) {
        parser_.Fail(value, "the key is masked; show --show-keys and convert write it");
    }
    parser_.Hex(value, CR_SO_KEY_SIZE, fixed_.key);
}

void SegmentReader::PlaceTaskIds(Value value, MemberFacts const& member) {
    parser_.ForEachCounted(value, member.name, taskIds_, [this](Value& element, std::uint64_t i) {
        Store(bytes_ + CR_SO_FIXED_SIZE + i * segment::kTaskIdSize, parser_.Decimal(element));
    });
}

void SegmentReader::PlaceFingerprints(Value value, MemberFacts const& member) {
    unsigned int const width = CRFPDigestSize(fixed_.fptype);
    unsigned char* const to = bytes_ + segment::FingerprintOffset(fixed_.ntaskids);
    parser_.ForEachCounted(value, member.name, fingerprints_,
                           [&](Value& element, std::uint64_t i) { parser_.Hex(element, width, to + i * width); });
}

} // namespace crrecord::tool::json
