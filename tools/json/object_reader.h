// DO records from JSON.

#pragma once

#include "record/references.h"
#include "support/layout/record_layout.h"
#include "json/record_reader.h"

#include <crrecord/segments.h>
#include <crrecord/tref.h>

namespace crrecord::tool::json {

class ObjectReader : public RecordReader {
public:
    explicit ObjectReader(Parser& parser) : RecordReader(parser, crrecord::BytesOf(&header_)) {}

    // Makes the record in host order of the line that the parser holds.
    void Read(std::vector<unsigned char>& record);

    void ReadReserved2(Value value, MemberFacts const& member);
    void MeasureBitmap(Value value, MemberFacts const&);
    void CountContainers(Value value, MemberFacts const&) { containers_ = parser_.CountElements(value); }
    void CountSegments(Value value, MemberFacts const&) { segments_ = parser_.CountElements(value); }
    void ReadReferences(Value value, MemberFacts const& member);
    void ReadLegacyReferences(Value value, MemberFacts const& member);
    void PlaceBitmap(Value value, MemberFacts const&);
    void PlaceContainers(Value value, MemberFacts const& member);
    void PlaceSegments(Value value, MemberFacts const& member);
    void PlaceListChecksum(Value value, MemberFacts const&);
    void PlaceBloomLength(Value value, MemberFacts const&);
    void PlaceBloomZeros(Value value, MemberFacts const&);
    void PlaceTail(Value value, MemberFacts const&);

    // Of a container.
    void ReadContainer(Value value, MemberFacts const&) { Store(element_, parser_.Decimal(value)); }
    void ReadContainerBytes(Value value, MemberFacts const&) { Store(element_ + kDcidSize, parser_.Decimal(value)); }
    // Of a segment.
    void ReadIndex(Value value, MemberFacts const&);
    void ReadFingerprint(Value value, MemberFacts const&);
    void ReadSegmentSize(Value value, MemberFacts const& member);
    void CheckSegmentSize(Value value, MemberFacts const& member);
    void ReadSegmentOffset(Value value, MemberFacts const& member);
    void ReadSegmentDcid(Value value, MemberFacts const&);

private:
    // The header with its counts, room for the sections, and those of them that are known by now.
    void Place(std::vector<unsigned char>& record);
    void RequireBloom(Value& value);
    Reference ReadReference(Value& value);

    DORecordHeader header_{};
    RecordLayout layout_{RecordCounts{}};
    std::uint64_t containers_ = 0;
    std::uint64_t segments_ = 0;
    std::vector<unsigned char> taskIds_, dsids_, references_; // as they will stand in the record
    std::uint64_t bitmapDigits_ = 0;

    unsigned char* bytes_ = nullptr; // of the record
    DOSegmentSource source_{};
    unsigned char* element_ = nullptr; // the container or segment that is read
    std::uint32_t index_ = 0;          // of that segment
};

} // namespace crrecord::tool::json
