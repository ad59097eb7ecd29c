// The layout of a segment record: the offset of each field, and whether a conversion byte-swaps it.

#pragma once

#include <crrecord/SOmarshall.h>
#include <crrecord/fingerprint.h>

#include "base/byteorder.h"

#include <array>
#include <string_view>

namespace crrecord::segment {

// The treatment of a field in a conversion.
enum class Handling : unsigned char {
    ByteSwapped, // byte-swapped
    TaskIds,     // the number of task ids: byte-swapped, or 0 if the task ids are stripped
    RecSize,     // byte-swapped, or computed if the task ids are stripped
    Kept,        // copied unchanged
    Left,        // not copied: a separate destination keeps its value
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

inline constexpr unsigned int kTaskIdSize = CRR_TASKID_SIZE;
inline constexpr unsigned int kSpareSize = CR_SO_RECORD_SIZE - CR_SO_FIXED_SIZE;

// The fields fill the fixed part without a gap.
consteval bool FieldsAreDense() {
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

// Size of a record in bytes. The greatest counts give less than 2^39, so nothing wraps.
constexpr std::uint64_t RecordSize(std::uint32_t ntaskids, std::uint32_t nfp, unsigned int fptype) noexcept {
    return crr_so_size(ntaskids, nfp, CRFPDigestSize(fptype));
}

// Offset of fingerprint 0, after the task ids.
constexpr std::uint64_t FingerprintOffset(std::uint32_t ntaskids) noexcept {
    return CR_SO_FIXED_SIZE + std::uint64_t{kTaskIdSize} * ntaskids;
}

static_assert(RecordSize(0xffffffff, 0xffffffff, CR_FP_TYPE_SHA256) < std::uint64_t{1} << 39);
static_assert(RecordSize(3, 5, CR_FP_TYPE_MD5) ==
              FingerprintOffset(3) + 5 * CRFPDigestSize(CR_FP_TYPE_MD5) + kSpareSize);
static_assert(RecordSize(0, 0, CR_FP_TYPE_MD5) == CR_SO_RECORD_SIZE && FingerprintOffset(0) == CR_SO_FIXED_SIZE);

// A record is in network order if its type, read as big-endian, is that of a segment record.
inline Order OrderOf(_SegmentDBRecord const* record) noexcept {
    return ByteSwapped(record->type) == CR_SO_RECORD_TYPE ? Order::Network : Order::Host;
}

// Copies the fixed part of a record whose memory may change. Later changes do not affect the copy.
inline _SegmentDBRecord ReadHeader(void const* record) noexcept {
    _SegmentDBRecord header;
    std::memcpy(&header, record, sizeof header);
    CRR_READ_ONCE();
    return header;
}

inline unsigned char* BytesOf(_SegmentDBRecord* record) noexcept {
    return reinterpret_cast<unsigned char*>(record);
}

inline unsigned char const* BytesOf(_SegmentDBRecord const* record) noexcept {
    return reinterpret_cast<unsigned char const*>(record);
}

} // namespace crrecord::segment
