// What the tool knows of DO records.

#pragma once

#include "io/record_stream.h"

#include <crrecord/DORecord.h>
#include <crrecord/DORecordView.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <span>

namespace crrecord::tool {

// Brings the bytes of a valid record, which are still as they were found, into `order`.
void ConvertDORecord(Record const& record, Order order) noexcept;

// A valid DO record, or the one that a valid exchange form makes, in host order and with its references. It works in
// the record's bytes where it can; they are used up. Throws InputFailure where the library refuses it.
std::unique_ptr<DORecord> OpenDORecord(std::string_view file, Record const& record);

// The bytes of an open record.
inline std::span<unsigned char const> BytesOf(DORecord const& record) {
    return {reinterpret_cast<unsigned char const*>(record.GetHeader()), record.GetHeaderSize()};
}

// The only record of an input, for verbs that work on one: a valid DO record or exchange form, as it was found. Null,
// and told, where it is bad. Throws Failure where there are more, or where it is a segment record.
Record const* OnlyDORecord(RecordStream& stream);

// The same, open.
std::unique_ptr<DORecord> OpenOnlyDORecord(RecordStream& stream);

// The fingerprint in lower-case hexadecimal digits.
std::string TextOf(crfp_digest_t const& fingerprint, unsigned int fptype);

// Calls use(index, position in the object, segment) for the first `count` segments.
template <class Use>
void ForEachSegment(DOSegmentRange const& segments, unsigned int dotype, std::uint64_t count, Use use) {
    std::uint64_t position = 0;
    for (unsigned int i = 0; i < std::min<std::uint64_t>(count, segments.size()); ++i) {
        DOSegment const segment = segments[i];
        // The others follow each other without gaps; what else may be stored says nothing of the place.
        position = dotype == CR_DO_TYPE_8_BYTE_OFFSET ? segment.offset : position;
        use(i, position, segment);
        position += segment.size;
    }
}

} // namespace crrecord::tool
