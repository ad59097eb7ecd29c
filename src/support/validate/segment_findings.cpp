#include "support/validate/segment_findings.h"

#include <cstdio>

namespace crrecord {

void ReportSegmentFault(SegmentFault const& fault, char const* record, FindingReporter& reporter) noexcept {
    if (fault.code == 0) {
        return;
    }
    std::uint64_t const found = fault.found, expected = fault.expected;
    char field[48];
    std::snprintf(field, sizeof field,
                  fault.code == CR_FINDING_SEGMENT_SIZE ? "segments[%u].size" : "segments[%u].offset", fault.segment);
    Finding const inSegment{fault.code, field, fault.offset, found, expected};
    Finding const inObject{fault.code, "size", fault.offset, found, expected};
    switch (fault.code) {
    case CR_FINDING_SEGMENT_PRODUCT:
        reporter.Report(inObject, "Invalid %s: object of %lu bytes in segments of %lu bytes in all", record, found,
                        expected);
        break;
    case CR_FINDING_SEGMENT_SUM:
        reporter.Report(inObject, "Invalid %s: object of %lu bytes, but its segments have %lu", record, found,
                        expected);
        break;
    case CR_FINDING_SEGMENT_SIZE:
        reporter.Report(inSegment, "Invalid %s: segment %u has %lu bytes, probably in the wrong byte order", record,
                        fault.segment, found);
        break;
    case CR_FINDING_SEGMENT_OFFSET:
        reporter.Report(inSegment, "Invalid %s: segment %u has offset %lu, probably in the wrong byte order", record,
                        fault.segment, found);
        break;
    case CR_FINDING_SEGMENT_OVERLAP:
        reporter.Report(inSegment, "Invalid %s: segment %u starts at %lu, before the end of the previous one, %lu",
                        record, fault.segment, found, expected);
        break;
    default:
        reporter.Report(inObject, "Invalid %s: object of %lu bytes, but its last segment ends at %lu", record, found,
                        expected);
        break;
    }
}

} // namespace crrecord
