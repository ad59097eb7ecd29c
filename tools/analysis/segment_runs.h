// What a valid record says of segments and of the containers that they lie in, read in place.

#pragma once

#include "io/record_stream.h"

#include "SOmarshall/layout.h"
#include <crrecord/do_types.h>

#include <crrecord/DORecordView.h>

namespace crrecord::tool {

// Neighbouring segments of an object that lie in one container.
struct Run {
    std::uint64_t dcid;
    std::uint64_t segments; // 0 for an entry of a bloom record's list
    std::uint64_t bytes;
};

// Calls segment(DOSegment) for each segment and run(Run) behind each run. A bloom record has no segments; its list says
// how many of its bytes lie in which container.
template <class UseSegment, class UseRun>
void ForEachRun(DORecordHeader const* header, UseSegment segment, UseRun run) {
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

// What a segment record says of its segment.
struct StoredSegment {
    std::uint64_t size;
    std::uint64_t dcid;
    bool inContainer;                 // otherwise it lies in a file of its own, and there is no DCID
    unsigned char const* fingerprint; // the first one; null where there is none
    unsigned int fptype;
};

inline StoredSegment SegmentOf(Record const& record) noexcept {
    using segment::FieldOf;
    auto const number = [&record]<class T>(segment::Field field, T) {
        return Load<T>(record.bytes + field.offset, record.order);
    };
    constexpr std::uint64_t k64{};
    constexpr std::uint32_t k32{};
    unsigned char const* const fingerprint =
        record.bytes + segment::FingerprintOffset(number(FieldOf("ntaskids"), k32));
    return {.size = number(FieldOf("size"), k64),
            .dcid = number(FieldOf("pathid"), k64),
            .inContainer = RecordInContainer(number(FieldOf("fileid"), k64)),
            .fingerprint = number(FieldOf("nfp"), k32) == 0 ? nullptr : fingerprint,
            .fptype = record.bytes[FieldOf("fptype").offset]};
}

} // namespace crrecord::tool
