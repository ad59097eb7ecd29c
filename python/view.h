// Validated records, read in place.

#pragma once

#include "array.h"

#include "support/layout/record_layout.h"

#include <crrecord/DORecord.h>
#include <crrecord/DORecordView.h>
#include <crrecord/SOmarshall.h>

namespace crrecord::python {

// The layout of a record by the header that its view keeps.
RecordLayout LayoutOf(DORecordView const& record) noexcept;

// A DO record. The constructor reads the header and computes the sections once, so a later change of the bytes does not
// lead to reads outside of them.
class View : public std::enable_shared_from_this<View> {
public:
    // Raises crrecord.Error unless the bytes are a valid record.
    View(Slice bytes, bool subDO);

    Slice const& Bytes() const noexcept { return bytes_; }
    bool IsSubDO() const noexcept { return subDO_; }
    DORecordView const& Fields() const noexcept { return fields_; }
    DOSegmentSource const& Segments() const noexcept { return segments_; }

    Array Entries() const;
    Array Fingerprints() const;
    Array Sizes() const;
    Array Offsets() const;
    Array Dcids() const;
    Array UniqueList() const;
    Array Bloom() const;
    Array LegacyTaskIds() const;
    Array LegacyDsids() const;
    py::list References() const;

    // Returns: a copy of the record as it is now. Raises crrecord.Error if it was changed and is invalid.
    std::unique_ptr<DORecord> Copy() const;

private:
    using Sizes32 = std::vector<std::uint32_t>;

    Array entriesOf(Field const& field) const;
    Field fingerprint() const;

    Slice bytes_;
    bool subDO_;
    DORecordView fields_;
    DOSegmentSource segments_;
    DOUniqueDCIDSource unique_;
    unsigned char const* taskIds_;
    unsigned char const* dsids_;
    unsigned char const* references_;
    unsigned char const* bloom_;
    mutable std::shared_ptr<Sizes32 const> computedSizes_; // for DO types that store none, once they are needed
};

// Builds a record from one stored record. Raises crrecord.Error with the findings.
std::unique_ptr<DORecord> RecordFrom(Slice const& bytes, bool subDO);

// Raises ValueError for a text other than "host" and "network", and crrecord.Error if the bytes are no valid DO record.
py::bytes Converted(Slice const& record, bool subDO, std::string const& order);

// Returns: a segment of `source` as crrecord.Segment.
py::object SegmentOf(DOSegment const& segment, DOSegmentSource const& source);

// A part of the segments of a view.
class SegmentSequence {
public:
    explicit SegmentSequence(std::shared_ptr<View const> view);

    py::ssize_t Count() const noexcept { return count_; }
    py::object Read(py::ssize_t i) const;
    SegmentSequence Part(py::ssize_t start, py::ssize_t step, py::ssize_t count) const;

private:
    std::shared_ptr<View const> view_;
    py::ssize_t start_, step_, count_;
};

void BindSegmentSequence(py::module_& module);

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
