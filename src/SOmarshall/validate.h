// The rules of a segment record's values and the walk over a received one, as the library shares them.

#pragma once

#include "support/validate/finding_reporter.h"

namespace crrecord::segment {

bool FlagsAreValid(unsigned int flags) noexcept;
bool DcidIsValid(unsigned long dcid) noexcept;

// Reports the findings of a record of `size` bytes and reads nothing else; without notes, only its fixed part and each
// field of it once. `options` as for SegmentRecordValidate.
void Diagnose(unsigned char const* bytes, std::uint64_t size, unsigned int options, FindingReporter& report) noexcept;

} // namespace crrecord::segment
