// The segment record's fields and sizes: the one place for where a byte is and whether it turns with the byte order.

#pragma once

#include <crrecord/SOmarshall.h>
#include <crrecord/fingerprint.h>

#include "base/byteorder.h"

#include <array>
#include <string_view>

namespace crrecord::segment {

// What a conversion does with a field.
enum class Handling : unsigned char {
    ByteSwapped, // turned into the other order
    TaskIds,     // the task-id count: turned, or 0 when the task ids are stripped
    RecSize,     // turned, or computed anew when the task ids are stripped
    Kept,        // copied as it is
    Left,        // not even copied: a separate destination keeps its own
};

struct Field {
    char const* name;
    unsigned short offset;
    unsigned short width;
    Handling handling;
};

#define CRRECORD_FIELD(member, handling)                                                                               \
    Field {                                                                                                            \
#member, offsetof(_SegmentDBRecord, member), sizeof(_SegmentDBRecord::member), Handling::handling              \
    }

inline constexpr std::array kFields{
    CRRECORD_FIELD(type, ByteSwapped),  CRRECORD_FIELD(flags, ByteSwapped),  CRRECORD_FIELD(recsize, RecSize),
    CRRECORD_FIELD(word8, ByteSwapped), CRRECORD_FIELD(ntaskids, TaskIds),   CRRECORD_FIELD(checktime, ByteSwapped),
    CRRECORD_FIELD(word20, Kept),       CRRECORD_FIELD(pathid, ByteSwapped), CRRECORD_FIELD(fileid, ByteSwapped),
    CRRECORD_FIELD(size, ByteSwapped),  CRRECORD_FIELD(CRC, ByteSwapped),    CRRECORD_FIELD(nfp, ByteSwapped),
    CRRECORD_FIELD(key, Kept),          CRRECORD_FIELD(fptype, Kept),        CRRECORD_FIELD(cryptomode, Left),
    CRRECORD_FIELD(reserved, Left),     CRRECORD_FIELD(keyindex, Left),      CRRECORD_FIELD(word94, Kept),
};

#undef CRRECORD_FIELD

// The field of a name that is known at compile time.
consteval Field FieldOf(std::string_view name) {
    for (Field const& field : kFields) {
        if (field.name == name) {
            return field;
        }
    }
    throw "no such field";
}

inline constexpr unsigned int kTaskIdSize = 8;
inline constexpr unsigned int kSpareSize = CR_SO_RECORD_SIZE - CR_SO_FIXED_SIZE;

// The fields lie one behind the other and fill the fixed part: no byte is without a name.
constexpr bool FieldsAreDense() {
    unsigned int at = 0;
    for (Field const& field : kFields) {
        if (field.offset != at) {
            return false;
        }
        at += field.width;
    }
    return at == CR_SO_FIXED_SIZE;
}
static_assert(FieldsAreDense());
static_assert(sizeof(_SegmentDBRecord::key) == CR_SO_KEY_SIZE);

// Cannot wrap: at most 104 + 40 * (2^32 - 1).
constexpr std::uint64_t RecordSize(std::uint32_t ntaskids, std::uint32_t nfp, unsigned int fptype) noexcept {
    return CR_SO_RECORD_SIZE + std::uint64_t{kTaskIdSize} * ntaskids + std::uint64_t{CRFPDigestSize(fptype)} * nfp;
}

// Offset of fingerprint 0, behind the task ids.
constexpr std::uint64_t FingerprintOffset(std::uint32_t ntaskids) noexcept {
    return CR_SO_FIXED_SIZE + std::uint64_t{kTaskIdSize} * ntaskids;
}

// A record is in network order exactly when its type, read as big-endian, is that of a segment record.
inline Order OrderOf(_SegmentDBRecord const* record) noexcept {
    return ByteSwapped(record->type) == CR_SO_RECORD_TYPE ? Order::Network : Order::Host;
}

inline unsigned char* BytesOf(_SegmentDBRecord* record) noexcept {
    return reinterpret_cast<unsigned char*>(record);
}

inline unsigned char const* BytesOf(_SegmentDBRecord const* record) noexcept {
    return reinterpret_cast<unsigned char const*>(record);
}

} // namespace crrecord::segment
