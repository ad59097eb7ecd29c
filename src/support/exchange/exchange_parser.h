// From the exchange form of a DO record to the record.

#pragma once

#include "support/exchange/exchange_form.h"
#include "support/validate/segment_list_check.h"

namespace crrecord::exchange {

// Builds the record of a form, in host order: in the given buffer if there is one and it is large enough, otherwise in
// a new buffer from Allocate (memory.h), to which *header and *bufferSize are set. A faulty segment list does not
// prevent this; `fault` receives its first fault.
//
// Returns: CR_STATUS_OK; CR_STATUS_NULL_ARGUMENT; CR_STATUS_INVALID_DO_TYPE; CR_STATUS_CORRUPT_RECORD for a form that
// violates another rule; CR_STATUS_INVALID for a record above 4 GiB - 1 or a buffer that overlaps the form;
// CR_STATUS_NO_MEMORY.
// On failure: *header and *bufferSize are unchanged. The content of a buffer that is large enough is unspecified.
cr_status_t Parse(Form form, bool subDO, DORecordHeader** header, unsigned long* bufferSize,
                  SegmentFault& fault) noexcept;

} // namespace crrecord::exchange
