// Segment records from JSON.

#include "support/layout/record_layout.h"
#include "json/record_reader.h"

#include <fmt/format.h>

namespace crrecord::tool::json {

namespace {

struct SegmentReader : RecordReader {
    explicit SegmentReader(Parser& from) : RecordReader(from, segment::BytesOf(&header)) {}

    void ReadKey(Value value, MemberFacts const&) {
        if (value.raw_json_token().starts_with("\"masked\"")) {
            parser.Fail(value, "the key is masked; show --show-keys and convert write it");
        }
        parser.Hex(value, CR_SO_KEY_SIZE, header.key);
    }
    void CountTaskIds(Value value, MemberFacts const&) { taskIds = parser.CountElements(value); }
    void CountFingerprints(Value value, MemberFacts const&) { fingerprints = parser.CountElements(value); }
    void ReadSpare(Value value, MemberFacts const&) { spare = parser.Decimal(value); }

    void PlaceTaskIds(Value value, MemberFacts const& member) {
        parser.ForEachCounted(value, member.name, taskIds, [this](Value& element, std::uint64_t i) {
            Store(bytes + CR_SO_FIXED_SIZE + i * segment::kTaskIdSize, parser.Decimal(element));
        });
    }
    void PlaceFingerprints(Value value, MemberFacts const& member) {
        unsigned int const width = CRFPDigestSize(header.fptype);
        unsigned char* const to = bytes + segment::FingerprintOffset(header.ntaskids);
        parser.ForEachCounted(value, member.name, fingerprints,
                              [&](Value& element, std::uint64_t i) { parser.Hex(element, width, to + i * width); });
    }

    // Allocates the record and writes the fixed part with its counts.
    void Allocate(std::vector<unsigned char>& record) {
        // No line is long enough for so many elements that the sum wraps.
        std::uint64_t const size =
            CR_SO_RECORD_SIZE + segment::kTaskIdSize * taskIds + CRFPDigestSize(header.fptype) * fingerprints;
        if (size > kLargestRecord) {
            Parser::FailMember(0, "", fmt::format("a record of {} bytes, expected at most {}", size, kLargestRecord));
        }
        header.recsize = static_cast<std::uint32_t>(size);
        header.ntaskids = static_cast<std::uint32_t>(taskIds);
        header.nfp = static_cast<std::uint32_t>(fingerprints);
        CheckDerived();
        record.resize(size);
        bytes = record.data();
        std::memcpy(bytes, &header, sizeof header);
    }

    _SegmentDBRecord header{};
    std::uint64_t taskIds = 0;
    std::uint64_t fingerprints = 0;
    std::uint64_t spare = 0;
    unsigned char* bytes = nullptr; // of the record
};

constexpr auto kMembers = [] {
    auto members = MemberTable<SegmentReader>(
        kSegmentMembers, {{{"key"}, &SegmentReader::ReadKey},
                          {{"taskids"}, &SegmentReader::CountTaskIds, &SegmentReader::PlaceTaskIds},
                          {{"fingerprints"}, &SegmentReader::CountFingerprints, &SegmentReader::PlaceFingerprints},
                          {{"spare"}, &SegmentReader::ReadSpare}});
    auto& type = members[RowOf(members, "type")];
    type.least = type.most = CR_SO_RECORD_TYPE;
    members[RowOf(members, "fptype")].most = CR_FP_TYPE_LAST;
    return members;
}();

} // namespace

Order ReadSegmentRecord(Parser& parser, std::vector<unsigned char>& record) {
    SegmentReader reader(parser);
    parser.ReadMembers(parser.Root(), kMembers, reader);
    parser.End();
    reader.Allocate(record);
    parser.PlaceMembers(parser.Root(), kMembers, reader);
    Store(reader.bytes + record.size() - segment::kSpareSize, reader.spare, reader.order);
    return reader.order;
}

} // namespace crrecord::tool::json
