// The rules of a segment record's values and the walk over a received one, as the library shares them.

#pragma once

#include "support/validate/finding_reporter.h"

namespace crrecord::segment {

bool FlagsAreValid(unsigned int flags) noexcept;
bool DcidIsValid(unsigned long dcid) noexcept;

// Reports what is wrong and what is odd with `size` bytes; reads nothing else. `options` as for SegmentRecordValidate.
void Diagnose(unsigned char const* bytes, std::uint64_t size, unsigned int options, FindingReporter& report) noexcept;

} // namespace crrecord::segment
