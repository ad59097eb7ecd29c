// Segment records: the buffer format, and the functions over bare buffers.
//
// A segment record describes one stored segment. It is one contiguous buffer, in host or in network (big-endian) byte
// order as a whole; docs/format.md gives every byte. The record carries no mark of its order: it is in network order
// exactly when its type, read as big-endian, is 2.
//
// Trust: SegmentRecordValidate and SegmentRecordDiagnose take any bytes of any length. Every other function here
// trusts the counts in the record: validate received bytes first, and convert them once.
//
// Threads: no state. A record is converted or written by one thread at a time, since writing converts it in place.

#pragma once

#include <crrecord/container.h>
#include <crrecord/export.h>
#include <crrecord/finding.h>
#include <crrecord/status.h>

#include <iosfwd>

inline constexpr unsigned int CR_SO_RECORD_TYPE = 2;
inline constexpr unsigned int CR_SO_KEY_SIZE = 33;
// Bytes of the fields of _SegmentDBRecord, the least that validation accepts.
inline constexpr unsigned int CR_SO_FIXED_SIZE = 96;
// Bytes of a record without task ids and fingerprints: one spare 64-bit slot ends every record.
inline constexpr unsigned int CR_SO_RECORD_SIZE = 104;

// The fixed part of a segment record. Task ids (64 bits each) and then fingerprints (raw digest bytes, 32 for
// fingerprint type 3 and 16 otherwise) follow at offset 96, and a spare 64-bit slot ends the record:
// recsize = 104 + 8 * ntaskids + CRFPDigestSize(fptype) * nfp. Integers are unsigned; alignment is 1, since records lie
// in mapped pages and database slices too. Fields marked "kept" have no byte order.
struct __attribute__((packed, may_alias)) _SegmentDBRecord {
    unsigned short type;      // 0x00: 2
    unsigned short flags;     // 0x02: 0 or 2
    unsigned int recsize;     // 0x04: bytes of the whole record
    unsigned int word8;       // 0x08: carried, not used
    unsigned int ntaskids;    // 0x0c: number of task ids
    unsigned int checktime;   // 0x10: seconds since the epoch
    unsigned int word20;      // 0x14: carried, not used; kept
    unsigned long pathid;     // 0x18: path, or the DCID of a segment that lies in a container
    unsigned long fileid;     // 0x20: file, or 0 for a segment that lies in a container
    unsigned long size;       // 0x28: bytes of the segment
    unsigned int CRC;         // 0x30: checksum supplied by the creator
    unsigned int nfp;         // 0x34: number of fingerprints
    unsigned char key[33];    // 0x38: kept
    unsigned char fptype;     // 0x59: fingerprint type
    unsigned char cryptomode; // 0x5a: not copied by the conversions
    unsigned char reserved;   // 0x5b: zero; not copied by the conversions
    unsigned short keyindex;  // 0x5c: in the writer's byte order, always; not copied by the conversions
    unsigned short word94;    // 0x5e: carried, not used; kept
};
static_assert(sizeof(_SegmentDBRecord) == CR_SO_FIXED_SIZE && alignof(_SegmentDBRecord) == 1);

// True for file id 0: the segment lies in a container, and the path id is its DCID.
CRRECORD_API bool RecordInContainer(unsigned long fileid) noexcept;

// Option of the conversions: drop the task ids. Other bits mean nothing.
inline constexpr unsigned int CR_SO_STRIP_TASKIDS = 1;

// Convert a record from host to network order and back. `destination` may be `source` itself; otherwise it has room for
// the result and doesn't overlap the source, and its crypto mode, reserved byte, key index and spare slot stay as they
// were. In place, the spare slot of a record that loses task ids is cleared. Neither looks whether the record is
// converted already: a second call converts a second time, over the wrong counts.
CRRECORD_API void SegmentRecordHton(_SegmentDBRecord* destination, _SegmentDBRecord const* source,
                                    unsigned int options) noexcept;
CRRECORD_API void SegmentRecordNtoh(_SegmentDBRecord* destination, _SegmentDBRecord const* source,
                                    unsigned int options) noexcept;

// Writes the serialized form of a record in host order into a new block: 32 bytes of big-endian head, the text of each
// fingerprint with its NUL, one zero byte.
// Returns: 0, with *out (release it with free) and *outLength set and errno as it was; CR_STATUS_NULL_ARGUMENT for a
// null argument; the status of a failed allocation, CR_STATUS_NO_MEMORY, logged, also for a form that does not fit 32
// bits.
// On failure: *out is null, unless `out` is, and *outLength is untouched.
CRRECORD_API cr_status_t SegmentRecordSerialize(_SegmentDBRecord* record, void** out, unsigned long* outLength);

// Options of validation: the record is in network order; it may have no task ids.
inline constexpr unsigned int CR_SO_NETWORK_ORDER = 1;
inline constexpr unsigned int CR_SO_NO_TASKIDS = 2;

// Checks `size` received bytes and reads nothing else. 0 for a good record; 9 for null or other option bits; 32 for a
// bad record, with exactly one trace line, "Invalid SO record: ...", while tracing is on.
CRRECORD_API cr_status_t SegmentRecordValidate(_SegmentDBRecord const* record, unsigned int size, unsigned int options);

// The same walk to its end: every error in the order of validation, then the notes, each given to `callback` (null is
// allowed, for the answer alone). 0 without errors, 32 with one, 9 for null or other option bits. Allocates nothing.
CRRECORD_API cr_status_t SegmentRecordDiagnose(void const* buffer, unsigned long size, unsigned int options,
                                               cr_finding_callback_t callback, void* context);

// Writes a record in either order to `stream` and returns it. Binary: recsize bytes in network order. Text, one line
// without its end: type,1,flags,path id,file id,size,CRC,fptype,,ntaskids,nfp,[task ids],[fingerprints], with numbers
// in plain decimal whatever the stream's flags and locale, and of each fingerprint the first byte as one raw
// character. The record is converted in place meanwhile and ends in the order that it had; where the stream throws,
// the binary form restores the order first and the text form leaves the record in host order.
CRRECORD_API std::ostream& SegmentRecordToStream(std::ostream& stream, _SegmentDBRecord& record, bool binary);
