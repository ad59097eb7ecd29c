// Records as JSON, one object on each line. docs/json.md describes the form.

#pragma once

#include "io/output.h"
#include "record/do_record.h"

namespace crrecord::tool::json {

// Writes the fields of a valid record, each after a comma, and the line's end. `segments` selects segments of a DO
// record. The output is flushed when it is full.
//
// A segment record is in host order, and `record.order` is the order of the original record. A DO record may be in
// either order.
void WriteSegmentRecord(Output& out, Record const& record, bool showKey);
void WriteObject(Output& out, DORecordView const& view, Range segments = {});

} // namespace crrecord::tool::json
