// What the first bytes of a record give.

#pragma once

#include "io/record_stream.h"

#include <crrecord/DORecordHeader.h>
#include <crrecord/SOmarshall.h>
#include <crrecord/probe.h>

#include <algorithm>

namespace crrecord::tool {

// Bytes that are enough to compute the size of any known record.
inline constexpr std::uint64_t kLargestHead = std::max<std::uint64_t>(CR_SO_FIXED_SIZE, CR_DO_HEADER_SIZE);
// The first part of an unknown record, as of a segment record that is cut short.
inline constexpr std::uint64_t kUnknownHead = CR_SO_FIXED_SIZE;

constexpr Kind KindOf(cr_record_kind_t kind) noexcept {
    return kind == CR_RECORD_SEGMENT ? Kind::Segment : kind == CR_RECORD_DO ? Kind::DataObject : Kind::Unknown;
}

// Returns: false for two bytes that start no known record.
constexpr bool MayStartRecord(unsigned char first, unsigned char second) noexcept {
    unsigned int const type = first | second;
    return (first == 0 || second == 0) && (type == CR_RECORD_SEGMENT || type == CR_RECORD_DO);
}

} // namespace crrecord::tool
