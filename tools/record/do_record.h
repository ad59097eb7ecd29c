// Opens DO records.

#pragma once

#include "io/record_stream.h"

#include <crrecord/DORecord.h>
#include <crrecord/DORecordView.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace crrecord::tool {

// A range of records or segments. Both ends are included.
struct Range {
    std::uint64_t first = 0;
    std::uint64_t last = std::numeric_limits<std::uint64_t>::max();

    constexpr bool operator==(Range const&) const noexcept = default;

    // Returns: one past the last of `count` elements that is in the range.
    constexpr std::uint64_t EndOf(std::uint64_t count) const noexcept { return last < count ? last + 1 : count; }
};

// Returns: a valid DO record, or the one made from a valid exchange form, in host order and with its references. It may
// use and overwrite the bytes of `record`.
// Throws: InputFailure if the library rejects the record.
std::unique_ptr<DORecord> OpenDORecord(std::string_view file, Record const& record);
// The same without references. All threads share the pool of references, and wait for each other if they load them.
std::unique_ptr<DORecord> OpenWithoutReferences(std::string_view file, Record const& record);

// The bytes of an open record.
inline std::span<unsigned char const> BytesOf(DORecord const& record) {
    return {reinterpret_cast<unsigned char const*>(record.GetHeader()), record.GetHeaderSize()};
}

struct OnlyRecord {
    Record record;
    std::vector<unsigned char> bytes; // of the record, if the stream scans
    bool hasDamage;                   // the input also has bad records or skipped bytes
};

// Returns: the only record of an input, a valid DO record or exchange form as it was read; std::nullopt for a bad
// record, after a message. If the stream scans, it reads on to its end, and the record is the only valid one.
// Throws: Failure for several records and for a segment record.
std::optional<OnlyRecord> OnlyDORecord(RecordStream& stream);

// Returns: the fingerprint in lower-case hexadecimal digits.
std::string TextOf(crfp_digest_t const& fingerprint, unsigned int fptype);

// Calls use(index, position in the object, segment) for the first `count` segments.
template <class Use>
void ForEachSegment(DOSegmentRange const& segments, unsigned int dotype, std::uint64_t count, Use use) {
    std::uint64_t position = 0;
    for (unsigned int i = 0; i < std::min<std::uint64_t>(count, segments.size()); ++i) {
        DOSegment const segment = segments[i];
        // Only DO type 3 has gaps. In the others each segment starts at the end of the one before it.
        position = dotype == CR_DO_TYPE_8_BYTE_OFFSET ? segment.offset : position;
        use(i, position, segment);
        position += segment.size;
    }
}

} // namespace crrecord::tool
