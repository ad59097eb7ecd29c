#include "support/validate/segment_findings.h"

#include <cstdio>

namespace crrecord {

void ReportSegmentFault(SegmentFault const& fault, char const* record, std::uint64_t entry, DOSegmentSource const& list,
                        std::uint64_t objectSize, FindingReporter& reporter) noexcept {
    auto const [rule, segment, found, expected] = fault;
    if (rule == SegmentRule::None) {
        return;
    }
    char field[48];
    std::snprintf(field, sizeof field, rule == SegmentRule::Size ? "segments[%u].size" : "segments[%u].offset",
                  segment);
    std::uint64_t const sizeAt = entry + list.fingerprint;
    std::uint64_t const offsetAt = entry + list.offset;
    // Three rules compare the object's size, which the finding names, with a value computed from the segments.
    switch (rule) {
    case SegmentRule::None: break;
    case SegmentRule::Product:
        reporter.Report({CR_FINDING_SEGMENT_PRODUCT, "size", objectSize, expected, found},
                        "Invalid %s: object of %lu bytes in segments of %lu bytes in all", record, expected, found);
        break;
    case SegmentRule::Sum:
        reporter.Report({CR_FINDING_SEGMENT_SUM, "size", objectSize, expected, found},
                        "Invalid %s: object of %lu bytes, but its segments have %lu", record, expected, found);
        break;
    case SegmentRule::Size:
        reporter.Report({CR_FINDING_SEGMENT_SIZE, field, sizeAt, found, expected},
                        "Invalid %s: segment %u has %lu bytes, probably in the wrong byte order", record, segment,
                        found);
        break;
    case SegmentRule::Offset:
        reporter.Report({CR_FINDING_SEGMENT_OFFSET, field, offsetAt, found, expected},
                        "Invalid %s: segment %u has offset %lu, probably in the wrong byte order", record, segment,
                        found);
        break;
    case SegmentRule::Overlap:
        reporter.Report({CR_FINDING_SEGMENT_OVERLAP, field, offsetAt, found, expected},
                        "Invalid %s: segment %u starts at %lu, before the end of the previous one, %lu", record,
                        segment, found, expected);
        break;
    case SegmentRule::End:
        reporter.Report({CR_FINDING_SEGMENT_END, "size", objectSize, expected, found},
                        "Invalid %s: object of %lu bytes, but its last segment ends at %lu", record, expected, found);
        break;
    }
}

} // namespace crrecord
