// Segment records from JSON.

#pragma once

#include "json/record_reader.h"

namespace crrecord::tool::json {

class SegmentReader : public RecordReader {
public:
    explicit SegmentReader(Parser& parser) : RecordReader(parser, segment::BytesOf(&fixed_)) {}

    // Makes the record in host order of the line that the parser holds.
    void Read(std::vector<unsigned char>& record);

    void ReadKey(Value value, MemberFacts const&);
    void CountTaskIds(Value value, MemberFacts const&) { taskIds_ = parser_.CountElements(value); }
    void CountFingerprints(Value value, MemberFacts const&) { fingerprints_ = parser_.CountElements(value); }
    void ReadSpare(Value value, MemberFacts const&) { spare_ = parser_.Decimal(value); }
    void PlaceTaskIds(Value value, MemberFacts const& member);
    void PlaceFingerprints(Value value, MemberFacts const& member);

private:
    // The fixed part with its counts, and room for the rest.
    void Place(std::vector<unsigned char>& record);

    _SegmentDBRecord fixed_{};
    std::uint64_t taskIds_ = 0;
    std::uint64_t fingerprints_ = 0;
    std::uint64_t spare_ = 0;
    unsigned char* bytes_ = nullptr; // of the record
};

} // namespace crrecord::tool::json
