// Segment records: the buffer format, and functions over bare buffers.
//
// A segment record describes one stored segment. It is one contiguous buffer. The whole record is in host or in network
// (big-endian) byte order: in network order exactly when its type, read as big-endian, is 2. docs/format.md describes
// every byte.
//
// Trust: SegmentRecordValidate and SegmentRecordDiagnose take any bytes of any length. Every other function here trusts
// the counts in the record: validate received bytes first, and convert them once.
//
// Thread safety: the functions have no state. SegmentRecordToStream converts its record in place, so one thread at a
// time converts or writes a record.

#pragma once

#include <crrecord/container.h>
#include <crrecord/export.h>
#include <crrecord/finding.h>
#include <crrecord/status.h>

#include <iosfwd>

// The record type, and bytes of the key.
inline constexpr unsigned int CR_SO_RECORD_TYPE = CRR_SO_TYPE;
inline constexpr unsigned int CR_SO_KEY_SIZE = CRR_SO_KEY_SIZE;
// Bytes of _SegmentDBRecord, below which CR_FINDING_SO_LENGTH is reported.
inline constexpr unsigned int CR_SO_FIXED_SIZE = CRR_SO_FIXED_SIZE;
// Bytes of a record without task ids and fingerprints, the smallest valid one: an 8-byte spare slot ends every record.
inline constexpr unsigned int CR_SO_RECORD_SIZE = CRR_SO_SIZE;

// The fixed part of a segment record. After it follow the task ids (8 bytes each), the fingerprints (raw digest bytes,
// 32 for CR_FP_TYPE_SHA256 and 16 for every other type) and the spare slot (8 bytes): recsize = 104 + 8 * ntaskids +
// CRFPDigestSize(fptype) * nfp. All integers are unsigned. Alignment is 1, since records are read in place in mapped
// pages and database slices. "Kept" fields are copied by conversions, not byte-swapped.
struct __attribute__((packed, may_alias)) _SegmentDBRecord {
    unsigned short type;      // 0x00: 2
    unsigned short flags;     // 0x02: 0 or 2
    unsigned int recsize;     // 0x04: bytes of the whole record
    unsigned int word8;       // 0x08: reserved; readers accept any value
    unsigned int ntaskids;    // 0x0c: number of task ids
    unsigned int checktime;   // 0x10: seconds since the epoch
    unsigned int word20;      // 0x14: reserved; readers accept any value; kept
    unsigned long pathid;     // 0x18: path, or the container (DCID) of a segment in a container
    unsigned long fileid;     // 0x20: file, or 0 for a segment in a container
    unsigned long size;       // 0x28: bytes of the segment
    unsigned int CRC;         // 0x30: checksum supplied by the creator
    unsigned int nfp;         // 0x34: number of fingerprints
    unsigned char key[33];    // 0x38: kept
    unsigned char fptype;     // 0x59: fingerprint type
    unsigned char cryptomode; // 0x5a: not copied by the conversions
    unsigned char reserved;   // 0x5b: zero; not copied by the conversions
    unsigned short keyindex;  // 0x5c: always in its writer's byte order; not copied by the conversions
    unsigned short word94;    // 0x5e: reserved; readers accept any value; kept
};
static_assert(sizeof(_SegmentDBRecord) == CR_SO_FIXED_SIZE && alignof(_SegmentDBRecord) == 1);

// Returns: true for file id 0: the segment is in a container, and the path id is that container's DCID.
CRRECORD_API bool RecordInContainer(unsigned long fileid) noexcept;

// Option of the conversions: drop the task ids. Other bits are ignored.
inline constexpr unsigned int CR_SO_STRIP_TASKIDS = 1;

// Convert a record of recsize bytes from host to network order, and back. `destination` may be `source`; otherwise it
// has the same size, does not overlap it, and keeps its own crypto mode, reserved byte, key index and spare slot: clear
// it before. A conversion in place that drops task ids clears the spare slot at the new end.
// Preconditions: a validated record, in the order that is converted from. A second call uses byte-swapped counts and
// leads out of the buffer.
CRRECORD_API void SegmentRecordHton(_SegmentDBRecord* destination, _SegmentDBRecord const* source,
                                    unsigned int options) noexcept;
CRRECORD_API void SegmentRecordNtoh(_SegmentDBRecord* destination, _SegmentDBRecord const* source,
                                    unsigned int options) noexcept;

// Writes the serialized form of a record in host order into a new block (docs/format.md): a big-endian head of 32
// bytes, the text of each fingerprint with its NUL, one zero byte. *out becomes the block, *outLength its bytes.
// Precondition: a validated record in host order. It is not changed.
// Returns: CR_STATUS_OK; CR_STATUS_NULL_ARGUMENT; CR_STATUS_NO_MEMORY, logged, also for a form beyond 4 GiB - 1.
// On failure: *outLength is unchanged, and *out is null unless `out` itself is null.
// Lifetime: the caller releases the block with free().
CRRECORD_API cr_status_t SegmentRecordSerialize(_SegmentDBRecord* record, void** out, unsigned long* outLength);

// Options of validation: the record is in network order; it must not hold task ids.
inline constexpr unsigned int CR_SO_NETWORK_ORDER = CRR_NETWORK_ORDER;
inline constexpr unsigned int CR_SO_NO_TASKIDS = CRR_NO_TASKIDS;

// Validates `size` received bytes, which may be any bytes, and reads nothing else.
// Returns: CR_STATUS_OK; CR_STATUS_INVALID for null or other option bits; CR_STATUS_CORRUPT_RECORD for an invalid
// record, with exactly one trace line, "Invalid SO record: ...", if tracing is on.
CRRECORD_API cr_status_t SegmentRecordValidate(_SegmentDBRecord const* record, unsigned int size, unsigned int options);

// Makes the same checks to the end and reports the errors, in the order of validation, to `callback`; for a record
// without errors it then reports the notes. `callback` may be null. A record without errors and notes is canonical:
// equal content has equal bytes. Allocates nothing.
// Returns: as SegmentRecordValidate. Notes do not change the result.
CRRECORD_API cr_status_t SegmentRecordDiagnose(void const* buffer, unsigned long size, unsigned int options,
                                               cr_finding_callback_t callback, void* context);

// Writes a record in either order to `stream`. Binary: recsize bytes in network order. Text: one line without a line
// end (docs/format.md), with numbers in plain decimal whatever the stream's flags and locale, and the first byte of
// each fingerprint as one raw character. The record is converted in place meanwhile, and back.
// Precondition: a validated record.
// Returns: `stream`.
// Throws: what the stream throws.
// On failure: the record is in the order that it had, but after a failed text in host order.
CRRECORD_API std::ostream& SegmentRecordToStream(std::ostream& stream, _SegmentDBRecord& record, bool binary);
