// The walk over a received DO record.

#pragma once

#include "support/layout/record_layout.h"
#include "support/validate/finding_reporter.h"

#include <functional>

namespace crrecord {

// Reports what is wrong and what is odd with `size` bytes; reads nothing else. `options` as for DORecordHeaderValidate.
void DiagnoseRecord(unsigned char const* bytes, std::uint64_t size, unsigned int options,
                    FindingReporter& report) noexcept;

// The order that a buffer shows. Throws for one that does not pass in that order: 32 with the first error's message, or
// 9 for null and for options other than CR_DO_SUB_DO.
Order RequireValid(void const* buffer, std::uint64_t size, unsigned int options);

// Gives as many bytes as a buffer has.
using AllocateCopy = std::function<DORecordHeader*()>;

// The same, and copies the record to host order in the same pass over its segments. Room is made once the header, the
// total and the unique list are good, and what making it throws is thrown for a record without faults. What the room
// holds after a throw means nothing.
void CopyValid(void const* buffer, std::uint64_t size, unsigned int options, AllocateCopy const& allocate);

} // namespace crrecord
