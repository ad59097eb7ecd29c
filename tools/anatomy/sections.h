// How a record, a broken one too, is divided: its sections, and the fields of each.

#pragma once

#include "io/record_stream.h"

#include <string_view>
#include <vector>

namespace crrecord::tool {

// How the bytes of a field are to be read.
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
    Digits,     // bytes that are shown as hexadecimal digits: fingerprints and keys
    Text,       // hexadecimal digits as they are stored, and a NUL
    References, // typed references, one behind the other
    Zeros,      // bytes that a writer leaves 0
    Opaque,     // as many bytes as they are
};

struct Field {
    std::string_view name;
    std::uint64_t width;
    Format format;
    bool turns = true; // stands in the record's byte order; the others in that of the machine that wrote it
};

// The sections of a record are dense: each begins where the one in front of it ends, and together they are all bytes of
// the record. One of which not all bytes are there has what is there, which may be nothing.
struct Section {
    std::string_view name;
    std::uint64_t offset;  // in the record
    std::uint64_t size;    // bytes that are there
    std::uint64_t missing; // bytes that the record's counts ask for behind its end

    // The fields: these, once, and then elements[0], elements[1], ... to the section's end.
    std::vector<Field> fields;
    std::string_view elements{};
    std::vector<Field> element{};
};

inline constexpr std::string_view kHeaderSection = "header";
inline constexpr std::string_view kBeyondSection = "beyond the end"; // of what the record's counts ask for
inline constexpr std::string_view kUnknownSection = "unknown";

// By what the record says of itself, in the order of its bytes. Sections without a byte that none is asked for either
// are left out; no bytes but those of the record are read, whatever its counts claim.
std::vector<Section> Sections(Record const& record);

// The order in which the fields of a record that turn are stored.
constexpr Order StoredOrder(Record const& record) noexcept {
    return record.kind == Kind::Form ? Order::Network : record.order;
}

} // namespace crrecord::tool
