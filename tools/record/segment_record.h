// What the tool knows of segment records.

#pragma once

#include "io/record_stream.h"

#include <crrecord/SOmarshall.h>

#include <optional>
#include <span>

#include <fmt/format.h>

namespace crrecord::tool {

// Bytes from which a segment record's size can be told.
constexpr std::uint64_t SegmentRecordHeadSize() noexcept {
    return CR_SO_FIXED_SIZE;
}

// The order of what may be the start of a segment record; none where it is something else or too short to tell.
std::optional<Order> SegmentRecordOrder(std::span<unsigned char const> bytes) noexcept;

// `head` has SegmentRecordHeadSize() bytes.
SizeClaims SegmentRecordSizes(unsigned char const* head, Order order) noexcept;

// Brings the bytes of a valid record, which are still as they were found, into `order`.
void TurnSegmentRecord(Record const& record, Order order) noexcept;

_SegmentDBRecord& AsSegmentRecord(Record const& record) noexcept;

// For valid records whose bytes were turned to host order: the members of the JSON object, each with a comma in front,
// and the row of the table.
void AppendSegmentJson(fmt::memory_buffer& to, Record const& record, bool showKey);
void AppendSegmentHeading(fmt::memory_buffer& to, bool showKey);
void AppendSegmentRow(fmt::memory_buffer& to, Record const& record, bool showKey);

} // namespace crrecord::tool
