#include "support/validate/segment_findings.h"

#include <cstdio>

namespace crrecord {

bool ReportSegmentFault(SegmentFault const& fault, char const* record, std::uint64_t entry, SegmentList const& list,
                        std::uint64_t objectSize, FindingReporter& report) noexcept {
    bool const atSize = fault.rule == SegmentRule::Size;
    char field[48];
    std::snprintf(field, sizeof field, atSize ? "segments[%u].size" : "segments[%u].offset", fault.segment);
    Finding const inEntry{0, field, entry + (atSize ? list.sizeAt : list.offsetAt), fault.found, fault.expected};
    Finding const inHeader{0, "size", objectSize, fault.expected, fault.found};
    auto const with = [](Finding finding, int code) {
        finding.code = code;
        return finding;
    };
    switch (fault.rule) {
    case SegmentRule::None: return true;
    case SegmentRule::Product:
        return report.Error(with(inHeader, CR_FINDING_SEGMENT_PRODUCT),
                            "Invalid %s: object of %lu bytes in segments of %lu bytes in all", record, fault.expected,
                            fault.found);
    case SegmentRule::Sum:
        return report.Error(with(inHeader, CR_FINDING_SEGMENT_SUM),
                            "Invalid %s: object of %lu bytes, but its segments have %lu", record, fault.expected,
                            fault.found);
    case SegmentRule::Size:
        return report.Error(with(inEntry, CR_FINDING_SEGMENT_SIZE),
                            "Invalid %s: segment %u has %lu bytes, probably in the wrong byte order", record,
                            fault.segment, fault.found);
    case SegmentRule::Offset:
        return report.Error(with(inEntry, CR_FINDING_SEGMENT_OFFSET),
                            "Invalid %s: segment %u has offset %lu, probably in the wrong byte order", record,
                            fault.segment, fault.found);
    case SegmentRule::Overlap:
        return report.Error(with(inEntry, CR_FINDING_SEGMENT_OVERLAP),
                            "Invalid %s: segment %u starts at %lu, before the end of the one in front of it, %lu",
                            record, fault.segment, fault.found, fault.expected);
    case SegmentRule::End:
        return report.Error(with(inHeader, CR_FINDING_SEGMENT_END),
                            "Invalid %s: object of %lu bytes, but its last segment ends at %lu", record, fault.expected,
                            fault.found);
    }
    return true;
}

} // namespace crrecord
