// Validation of a received DO record, for functions that keep or copy it.

#pragma once

#include "support/layout/record_layout.h"

namespace crrecord {

// The header of a valid record, as validation read it.
struct ValidHeader {
    DORecordHeader fields; // in host order
    Order order;           // of the record
};

// Detects the byte order of `size` bytes and validates them. With `copy`, a block of `size` bytes, the record is copied
// there in host order and the copy is validated, so that later changes of the buffer have no effect.
//
// Throws: CR_STATUS_CORRUPT_RECORD with the first error's message; CR_STATUS_INVALID for null and for options other
// than CR_DO_SUB_DO. On failure: the content of `copy` is unspecified.
ValidHeader RequireValid(void const* buffer, std::uint64_t size, unsigned int options, unsigned char* copy = nullptr);

} // namespace crrecord
