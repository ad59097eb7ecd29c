// What the validators of whole records and of exchange forms say of a broken segment rule.

#pragma once

#include "support/validate/finding_reporter.h"
#include "support/validate/segment_list_check.h"

namespace crrecord {

// `record` names what was received; `entry` is the offset of the segment at fault, `objectSize` that of the object's
// size. Returns whether the walk goes on.
bool ReportSegmentFault(SegmentFault const& fault, char const* record, std::uint64_t entry, SegmentList const& list,
                        std::uint64_t objectSize, FindingReporter& report) noexcept;

} // namespace crrecord
