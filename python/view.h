// Validated records, read in place.

#pragma once

#include "array.h"

#include <crrecord/DORecordView.h>
#include <crrecord/SOmarshall.h>

namespace crrecord::python {

// A DO record. The constructor reads the header and computes the sections once, so a later change of the bytes does not
// lead to reads outside of them.
class View {
public:
    // Raises crrecord.Error unless the bytes are a valid record.
    View(Slice bytes, bool subDO);

    Slice const& Bytes() const noexcept { return bytes_; }
    DORecordView const& Fields() const noexcept { return fields_; }
    DOSegmentSource const& Segments() const noexcept { return segments_; }

    Array Entries() const;
    Array Fingerprints() const;
    py::object Sizes() const;   // None if the DO type has none
    py::object Offsets() const; // None if the DO type has none
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

// Returns: a segment of `source` as crrecord.Segment.
py::object SegmentOf(DOSegment const& segment, DOSegmentSource const& source);

// A segment record.
class SegmentView {
public:
    // Raises crrecord.Error unless the bytes are a valid record.
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
