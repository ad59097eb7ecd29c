// Makes records of the segments of a file.

#pragma once

#include "io/output.h"
#include "record/cut.h"

#include <crrecord/DORecord.h>

#include <memory>
#include <vector>

namespace crrecord::tool {

// What a DO record has besides its segments.
struct ObjectFacts {
    unsigned int dotype = CR_DO_TYPE_8_BYTE_OFFSET;
    std::vector<unsigned long> tasks;
    std::vector<unsigned int> dsids;
};

// The segments of a DO record, in memory that grows with the file.
class RecordBuilder {
public:
    RecordBuilder(ObjectFacts const& facts, CutOptions const& cut)
        : facts_(facts), cut_(cut), fptype_(static_cast<unsigned char>(cut.fptype)) {}

    // Adds a segment with its container. Throws: InputFailure if a check below fails.
    void Add(CutSegment const& segment);
    // Allocates for the expected segments. There may be more.
    void Reserve(std::uint64_t segments);

    // Throws: InputFailure if the DO type cannot store the offset of a segment.
    void CheckOffset(std::uint64_t offset) const;
    // Throws: InputFailure if a record of so many segments would exceed 4 GiB - 1.
    void CheckCount(std::uint64_t segments) const;

    // Returns: the record in network order. `ownContainer` is the container of the record itself.
    std::unique_ptr<DORecord> Build(CutTotals const& totals, unsigned int ownContainer) &&;

private:
    void Append(void const* bytes, std::size_t size);
    void AppendOffset(std::uint64_t offset);
    std::uint64_t SizeFor(std::uint64_t segments) const;
    unsigned char Type() const { return static_cast<unsigned char>(facts_.dotype); }

    ObjectFacts const& facts_;
    CutOptions const& cut_;
    unsigned char fptype_;
    std::vector<unsigned char> entries_;
    std::vector<unsigned long> dcids_;
};

// Writes the segment record of a segment in a container below 2^32, in network order.
void WriteSegmentRecord(OutputFile& out, CutSegment const& cut, unsigned int fptype);

} // namespace crrecord::tool
