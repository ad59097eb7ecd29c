#include "store/segment_shape.h"

#include "analysis/segment_runs.h"
#include "record/record_findings.h"

namespace crrecord::tool {

std::string FirstErrorOf(std::string const& file, Record const& record) {
    std::vector<Finding> findings;
    Diagnose(record, Depth::FirstError, findings);
    return findings.empty() ? PlaceOf(file, record) + ": not valid" : Describe(file, record, findings.front());
}

std::string ClaimError(std::string const& file, Record const& record) {
    return PlaceOf(file, record) + ": with its sizes, the sum of the sizes in all records would exceed 2^63 bytes";
}

std::string SegmentRecordError(std::string const& file, Record const& record) {
    unsigned int const options = record.order == Order::Network ? CR_SO_NETWORK_ORDER : 0;
    if (record.kind != Kind::Segment ||
        SegmentRecordDiagnose(record.bytes, record.size, options, nullptr, nullptr) != CR_STATUS_OK) {
        return FirstErrorOf(file, record);
    }
    StoredSegment const segment = SegmentOf(record);
    if (segment.inContainer && segment.fingerprints == 1) {
        return {};
    }
    return fmt::format("{}: found a segment record with file id {} and {}, expected file id 0 and 1 fingerprint",
                       PlaceOf(file, record), segment.fileId, Counted(segment.fingerprints, "fingerprint"));
}

} // namespace crrecord::tool
