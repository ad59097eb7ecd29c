// Records as JSON: one object a line for each. docs/json.md describes the form.

#pragma once

#include "io/output.h"
#include "io/record_stream.h"
#include "record/range.h"

#include <crrecord/DORecordView.h>

namespace crrecord::tool::json {

// The fields of a valid record, each with a comma in front, and the line's end. Of a DO record the segments of a range.
// The output is flushed as it fills.
//
// A segment record is in host order by now, though `record.order` still says how it was found; a DO record may be in
// either.
void WriteSegmentRecord(Output& out, Record const& record, bool showKey);
void WriteObject(Output& out, DORecordView const& view, Range segments = {});

} // namespace crrecord::tool::json
