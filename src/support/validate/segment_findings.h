// The findings for a faulty segment list, shared by the validators of records and of exchange forms.

#pragma once

#include "support/validate/finding_reporter.h"
#include "support/validate/segment_list_check.h"

namespace crrecord {

// Reports the fault, if there is one. `record` names the kind of buffer in the message.
void ReportSegmentFault(SegmentFault const& fault, char const* record, FindingReporter& reporter) noexcept;

} // namespace crrecord
