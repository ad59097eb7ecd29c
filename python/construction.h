// Builds DO records from Python objects: segments, packed entries, bitmaps.

#pragma once

#include "buffer.h"

#include <crrecord/DORecord.h>

#include <optional>

namespace crrecord::python {

// The header fields of a new record, from keyword arguments.
struct NewFields {
    unsigned long cid;
    std::optional<unsigned long> size; // by default the end of the last segment
    unsigned long segmentSize;
    unsigned int crc;
    unsigned int ctime; // 0 for now
    unsigned int mtime; // 0 for now
    unsigned char fptype;
    unsigned char dotype;
    py::object uniqueList; // a complete list in host order, pairs of container and bytes, or None
};

// From an iterable of (fingerprint, size, offset, dcid). These functions raise crrecord.Error if the segments do not
// match the object, and ValueError for arguments of a wrong form.
std::unique_ptr<DORecord> FromSegments(py::iterable const& segments, NewFields const& fields);

// From packed entries and 64-bit containers, both as in a record in host order. Raises ValueError for a buffer whose
// format says that its elements are something else.
std::unique_ptr<DORecord> FromEntries(py::object const& entries, py::object const& dcids, NewFields fields);

std::unique_ptr<DORecord> FromBloom(py::object const& bitmap, NewFields const& fields);

} // namespace crrecord::python
