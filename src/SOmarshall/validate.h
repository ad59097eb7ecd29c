// Validation of segment records, for use inside the library.

#pragma once

#include "support/validate/finding_reporter.h"

namespace crrecord::segment {

bool FlagsAreValid(unsigned int flags) noexcept;
bool DcidIsValid(unsigned long dcid) noexcept;

// Reports the findings of a record of `size` bytes. `options` as for SegmentRecordValidate.
// The fixed part is read once. Only a note reads another byte.
void Diagnose(unsigned char const* bytes, std::uint64_t size, unsigned int options, FindingReporter& reporter) noexcept;

} // namespace crrecord::segment
