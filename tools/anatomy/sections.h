// The sections of a record, also of a broken one, and the fields of each section.

#pragma once

#include "io/record_stream.h"

#include <string_view>
#include <vector>

namespace crrecord::tool {

// The type of a field.
enum class Format : unsigned char {
    Number,
    Hexadecimal, // checksums and flags
    Time,        // seconds since the epoch
    RecordType,
    DOType,
    FingerprintType,
    Container,
    TaskId,
    Dsid,
    Digits,     // bytes shown as hexadecimal digits: fingerprints and keys
    Text,       // stored hexadecimal digits and a NUL
    References, // typed references, one after the other
    Zeros,      // bytes that a writer sets to 0
    Opaque,     // bytes shown as their number
};

struct Field {
    std::string_view name;
    std::uint64_t width;
    Format format;
    bool swapped = true; // in the record's byte order; otherwise in that of the machine that wrote it
};

// The sections of a record have no gaps between them and cover all its bytes. A section that is cut short has the bytes
// that are present, which may be none.
struct Section {
    std::string_view name;
    std::uint64_t offset;  // in the record
    std::uint64_t size;    // bytes present
    std::uint64_t missing; // bytes that the record's counts require after its end

    // The fields, followed by elements[0], elements[1], ... to the section's end.
    std::vector<Field> fields;
    std::string_view elements{};
    std::vector<Field> element{};
};

inline constexpr std::string_view kHeaderSection = "header";
inline constexpr std::string_view kBeyondSection =
    "beyond the end"; // bytes after those that the record's counts require
inline constexpr std::string_view kUnknownSection = "unknown";

// Returns: the sections that the record's counts require, in the order of its bytes. Empty sections are omitted. Only
// the record's bytes are read, whatever its counts claim.
std::vector<Section> Sections(Record const& record);

// Returns: the byte order of the byte-swapped fields of a record.
constexpr Order StoredOrder(Record const& record) noexcept {
    return record.kind == Kind::Form ? Order::Network : record.order;
}

} // namespace crrecord::tool
