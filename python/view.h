// Validated records, read where they lie.

#pragma once

#include "array.h"

#include <crrecord/DORecordView.h>
#include <crrecord/SOmarshall.h>

namespace crrecord::python {

// Of a DO record. Its header is read once. Where the sections lie is fixed then too, so that no later change of the
// bytes leads out of them.
class View {
public:
    // Raises crrecord.Error unless the bytes are a good record.
    View(Slice bytes, bool subDO);

    Slice const& Bytes() const noexcept { return bytes_; }
    DORecordView const& Fields() const noexcept { return fields_; }
    DOSegmentSource const& Segments() const noexcept { return segments_; }

    Array Entries() const;
    Array Fingerprints() const;
    py::object Sizes() const;   // None where the DO type has none
    py::object Offsets() const; // None where the DO type has none
    Array Dcids() const;
    Array UniqueList() const;
    Array Bloom() const;
    Array LegacyTaskIds() const;
    Array LegacyDsids() const;
    py::list References() const;

private:
    Array entriesOf(std::vector<Field> fields) const;
    std::vector<Field> entryFields() const;

    Slice bytes_;
    DORecordView fields_;
    DOSegmentSource segments_;
    DOUniqueDCIDSource unique_;
    unsigned char const* taskIds_;
    unsigned char const* dsids_;
    unsigned char const* references_;
    unsigned char const* bloom_;
};

// A segment that was read from such a record, as crrecord.Segment.
py::object SegmentOf(DOSegment const& segment, DOSegmentSource const& source);

// Of a segment record.
class SegmentView {
public:
    // Raises crrecord.Error unless the bytes are a good record.
    explicit SegmentView(Slice bytes);

    Slice const& Bytes() const noexcept { return bytes_; }
    _SegmentDBRecord const& Fields() const noexcept { return fields_; } // host values
    bool IsInNetworkOrder() const noexcept { return networkOrder_; }

    Array TaskIds() const;
    Array Fingerprints() const;

private:
    Slice bytes_;
    bool networkOrder_;
    _SegmentDBRecord fields_;
};

} // namespace crrecord::python
