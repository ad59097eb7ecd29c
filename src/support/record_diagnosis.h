// The walk over a received DO record.

#pragma once

#include "support/findings.h"
#include "support/record_layout.h"

namespace crrecord {

// Reports what is wrong and what is odd with `size` bytes; reads nothing else. `options` as for DORecordHeaderValidate.
void DiagnoseRecord(unsigned char const* bytes, std::uint64_t size, unsigned int options,
                    FindingReporter& report) noexcept;

// The order that a buffer shows. Throws for one that does not pass in that order: 32 with the first error's message, or
// 9 for null and for options other than CR_DO_SUB_DO.
Order RequireValid(void const* buffer, std::uint64_t size, unsigned int options);

} // namespace crrecord
