// The segments of valid records and their containers, read in place.

#pragma once

#include "io/record_stream.h"

#include "SOmarshall/layout.h"
#include <crrecord/do_types.h>

#include <crrecord/DORecordView.h>

namespace crrecord::tool {

// Consecutive segments of an object in one container.
struct Run {
    std::uint64_t dcid;
    std::uint64_t segments; // 0 for an entry of a bloom record's list
    std::uint64_t bytes;
};

// Calls segment(DOSegment) for each segment and run(Run) after each run. A bloom record has no segments; the entries of
// its list, bytes in a container, are its runs.
template <class UseRun, class UseSegment>
void ForEachRun(DORecordHeader const* header, UseRun run, UseSegment segment) {
    if (IsBloom(header->dotype)) {
        for (DOUniqueDCID const entry : DOUniqueDCIDRange(DOUniqueDCIDSource::Of(header))) {
            run(Run{entry.dcid, 0, entry.bytes});
        }
        return;
    }
    DOSegmentSource const source = DOSegmentSource::Of(header);
    Run current{};
    for (unsigned int i = 0; i < source.count; ++i) {
        DOSegment const read = source.Read(i);
        segment(read);
        if (read.dcid != current.dcid && current.segments != 0) {
            run(std::as_const(current));
            current = {};
        }
        current = {read.dcid, current.segments + 1, current.bytes + read.size};
    }
    if (current.segments != 0) {
        run(std::as_const(current));
    }
}

template <class UseRun>
void ForEachRun(DORecordHeader const* header, UseRun run) {
    ForEachRun(header, run, [](DOSegment const&) {});
}

// The segment of a segment record.
struct StoredSegment {
    std::uint64_t size;
    std::uint64_t dcid;
    std::uint64_t fileId;
    bool inContainer; // false: the segment is in a separate file and has no DCID
    std::uint32_t fingerprints;
    unsigned char const* fingerprint; // the first one, or null
    unsigned int fptype;
};

inline StoredSegment SegmentOf(Record const& record) noexcept {
    using segment::FieldOf;
    auto const number = [&record]<class T>(segment::Field field, T) {
        return Load<T>(record.bytes + field.offset, record.order);
    };
    constexpr std::uint64_t k64{};
    constexpr std::uint32_t k32{};
    std::uint64_t const fileId = number(FieldOf("fileid"), k64);
    std::uint32_t const fingerprints = number(FieldOf("nfp"), k32);
    unsigned char const* const fingerprint =
        record.bytes + segment::FingerprintOffset(number(FieldOf("ntaskids"), k32));
    return {.size = number(FieldOf("size"), k64),
            .dcid = number(FieldOf("pathid"), k64),
            .fileId = fileId,
            .inContainer = RecordInContainer(fileId),
            .fingerprints = fingerprints,
            .fingerprint = fingerprints == 0 ? nullptr : fingerprint,
            .fptype = record.bytes[FieldOf("fptype").offset]};
}

} // namespace crrecord::tool
