// Data-object (DO) records: the buffer format, and functions over bare buffers.
//
// A DO record is one contiguous buffer. The whole record is in host or in network (big-endian) byte order:
//
//     DO types 0, 1, 2, 3, 5:  header | entries | DCIDs | unique list | task ids | DSIDs | references | 24 zero bytes
//     DO type 4 (bloom):       header | bloom area  |     unique list | task ids | DSIDs | references |  4 zero bytes
//
// docs/format.md describes every byte. A header is in network order exactly when its type, read as big-endian, is 3.
// The functions here detect that and are right in both orders. On a big-endian machine the two orders are the same.
//
// Trust: the size functions compute in 64 bits and cannot wrap. The index and start functions trust the counts in the
// header and do not check the index: pass them validated buffers, and indexes below the count.
//
// Thread safety: the functions have no state.

#pragma once

#include <crrecord/container.h>
#include <crrecord/do_types.h>
#include <crrecord/export.h>
#include <crrecord/finding.h>
#include <crrecord/status.h>

// The record type, bytes of the fixed header, and bytes of a record whose counts are all 0, for every DO type: the bare
// header size.
inline constexpr unsigned int CR_DO_RECORD_TYPE = CRR_DO_TYPE;
inline constexpr unsigned int CR_DO_HEADER_SIZE = CRR_DO_HEADER_SIZE;
inline constexpr unsigned int CR_DO_RECORD_SIZE = CRR_DO_SIZE;

// The fixed header. Alignment is 1, since records are read in place in mapped pages and database slices. All integers
// are unsigned. A conversion byte-swaps all of them but ntaskid and nds, which stay in the byte order of the machine
// that wrote them.
struct __attribute__((packed, may_alias)) DORecordHeader {
    unsigned short type;        // 0x00: 3
    unsigned short flags;       // 0x02: bits 0x0002 and 0x0004 only
    unsigned int recsize;       // 0x04: bytes of the whole record
    unsigned int reserved;      // 0x08: zero
    unsigned int checktime;     // 0x0c: time of the last check, seconds since the epoch
    unsigned long CID;          // 0x10: container of the record itself
    unsigned long size;         // 0x18: bytes of the object
    unsigned long ssize;        // 0x20: fixed segment size in bytes (DO types 0 and 1)
    unsigned int CRC;           // 0x28: checksum supplied by the creator
    unsigned int ctime;         // 0x2c: creation, seconds since the epoch
    unsigned int mtime;         // 0x30: last change, seconds since the epoch
    unsigned int ntaskid;       // 0x34: number of legacy task ids; never converted
    unsigned int nfp;           // 0x38: number of segments
    unsigned int nudcid;        // 0x3c: number of entries of the unique DCID list
    unsigned int nds;           // 0x40: number of legacy DSIDs; never converted
    unsigned int trefssize;     // 0x44: bytes of the typed-reference section
    unsigned int bsize;         // 0x48: bytes of the bloom bitmap (DO type 4), otherwise 0
    unsigned char fptype;       // 0x4c: fingerprint type
    unsigned char dotype;       // 0x4d: DO type
    unsigned char reserved2[2]; // 0x4e: zero
};
static_assert(sizeof(DORecordHeader) == CR_DO_HEADER_SIZE && alignof(DORecordHeader) == 1);

// A 64-bit integer in a record, without alignment. Declare pointers to it with this name: auto drops the attributes.
typedef unsigned long cr_unaligned_u64 __attribute__((aligned(1), may_alias));

// --- Sizes --------------------------------------------------------------------------------------------------------

// Bytes of a record with these counts. `n` is the number of segments, or the bytes of the bitmap for
// CR_DO_TYPE_BLOOM_FILTER; `trefssize` is the bytes of the typed references. The result may exceed 32 bits, which no
// record does.
CRRECORD_API unsigned long DORecordHeaderSizeRaw(unsigned int ntaskid, unsigned int n, unsigned int nudcid,
                                                 unsigned int nds, unsigned char dotype, unsigned char fptype,
                                                 unsigned int trefssize) noexcept;
// Bytes of a bloom record with a bitmap of `bsize` bytes. `dotype` is ignored.
CRRECORD_API unsigned long DORecordHeaderSizeWithBloom(unsigned int ntaskid, unsigned int bsize, unsigned int nudcid,
                                                       unsigned int nds, unsigned char dotype,
                                                       unsigned int trefssize) noexcept;

// --- Addresses ------------------------------------------------------------------------------------------------------

// Each returns an address inside the buffer of `header`, without alignment, for reading and writing. The integers there
// are in the record's order, unless stated otherwise.
//
// Entry i, which begins with its fingerprint, and in it the 32-bit size, the 64-bit offset (DO type 3) and the 32-bit
// object offset (DO type 5), which has the same place. They do not check the DO type.
CRRECORD_API unsigned char* DORecordHeaderIndexOfSegment(DORecordHeader const* header, unsigned int i) noexcept;
CRRECORD_API unsigned char* DORecordHeaderIndexOfSegmentSize(DORecordHeader const* header, unsigned int i) noexcept;
CRRECORD_API unsigned char* DORecordHeaderIndexOfSegmentOffset(DORecordHeader const* header, unsigned int i) noexcept;
CRRECORD_API unsigned char* DORecordHeaderIndexOfSegmentObjectOffset(DORecordHeader const* header,
                                                                     unsigned int i) noexcept;
// The 64-bit DCID of segment i, which is never converted; index nfp is one past the end.
CRRECORD_API unsigned char* DORecordHeaderIndexOfDCID(DORecordHeader const* header, unsigned int i) noexcept;
// The unique DCID list, which begins with its checksum, and the 64-bit DCID of its entry i, which is never converted.
CRRECORD_API unsigned char* DORecordHeaderStartUDCID(DORecordHeader const* header) noexcept;
CRRECORD_API unsigned char* DORecordHeaderIndexOfUDCID(DORecordHeader const* header, unsigned int i) noexcept;
// Legacy task id i (64 bits) and legacy DSID i (32 bits), which are never converted.
CRRECORD_API unsigned char* DORecordHeaderIndexOfTaskId(DORecordHeader const* header, unsigned int i) noexcept;
CRRECORD_API unsigned char* DORecordHeaderIndexOfDataSelection(DORecordHeader const* header, unsigned int i) noexcept;
// The section of typed references.
CRRECORD_API unsigned char* DORecordHeaderStartTRefs(DORecordHeader const* header) noexcept;
// The bloom area of a record of DO type 4. Both return its start, the 32-bit length word.
CRRECORD_API unsigned char* DORecordHeaderStartBFBitmap(DORecordHeader const* header) noexcept;
CRRECORD_API unsigned char* DORecordHeaderGetBloomStart(DORecordHeader const* header) noexcept;
// Returns: the first byte of the bitmap, after the length word; null without a bitmap and for other DO types.
CRRECORD_API unsigned char* DORecordHeaderGetBloom(DORecordHeader const* header) noexcept;

// Returns: the container of the record itself (the field CID), as a host value.
CRRECORD_API unsigned long DORecordHeaderGetPOID(DORecordHeader const* header) noexcept;

// --- Byte order -----------------------------------------------------------------------------------------------------

// Convert a whole record in place between host and network order: the header fields, segment sizes and offsets, the
// count of the unique list, the length word of the bloom area. Fingerprints, DCIDs, entries and checksum of the unique
// list, typed references and legacy arrays keep their bytes. Both do the same: they detect the current order and swap,
// so that a second call undoes the first.
// Precondition: a validated record.
CRRECORD_API void DORecordHeaderHton(DORecordHeader* header) noexcept;
CRRECORD_API void DORecordHeaderNtoh(DORecordHeader* header) noexcept;

// --- Validation -----------------------------------------------------------------------------------------------------

// Options of validation: the buffer is in network order; it must not hold references; it is a sub-DO, whose segments
// may have up to 4 GiB - 1 bytes.
inline constexpr unsigned int CR_DO_NETWORK_ORDER = CRR_NETWORK_ORDER;
inline constexpr unsigned int CR_DO_NO_REFERENCES = CRR_NO_REFERENCES;
inline constexpr unsigned int CR_DO_SUB_DO = CRR_SUB_DO;

// Validates `size` received bytes, which may be any bytes, and reads nothing else. A valid buffer is memory-safe in
// every operation of the library, in both byte orders. Every record that the library built from good arguments is
// valid; a bloom record made from an exchange form is so once AppendBloomAndUniqueDCIDList has converted its list.
// Returns: CR_STATUS_OK; CR_STATUS_INVALID for null or other option bits; CR_STATUS_CORRUPT_RECORD for an invalid
// record, with exactly one trace line, "Invalid DO record: ...", if tracing is on.
CRRECORD_API cr_status_t DORecordHeaderValidate(void const* buffer, unsigned int size, unsigned int options);

// Makes the same checks to the end and reports the errors, in the order of validation, to `callback`; for a record
// without errors it then reports the notes. `callback` may be null. A record without errors and notes is canonical:
// equal content has equal bytes. Allocates nothing.
// Returns: as DORecordHeaderValidate. Notes do not change the result.
CRRECORD_API cr_status_t DORecordDiagnose(void const* buffer, unsigned long size, unsigned int options,
                                          cr_finding_callback_t callback, void* context);

// --- Exchange form --------------------------------------------------------------------------------------------------

// Builds a record in host order from the `serializedSize` bytes of an exchange form (docs/format.md), which may be any
// bytes. The form holds neither DO type nor fingerprint type; an unknown fingerprint type is taken as 16 bytes wide.
// *header and *bufferSize give a buffer to build in; if it is null or too small, *header is set to a new block and
// *bufferSize to its bytes. The new record has flags 0, CID 0, the checksum word of the form as CRC and the current
// time as ctime. A bloom record keeps its length word and its unique list big-endian. The rules of the segment list are
// not checked (DORecordSerializedValidate, DORecord::checkSegmentList).
// Returns: CR_STATUS_OK; CR_STATUS_NULL_ARGUMENT; CR_STATUS_INVALID_DO_TYPE; CR_STATUS_CORRUPT_RECORD for bytes that
// are not such a form; CR_STATUS_INVALID for a record beyond 4 GiB - 1, and if the form and the given buffer overlap,
// even if the buffer is too small; CR_STATUS_NO_MEMORY.
// On failure: both variables are unchanged. The bytes of the given buffer are unspecified, but unchanged if it overlaps
// the form.
// Lifetime: the caller releases a new block with free().
CRRECORD_API cr_status_t DORecordHeaderDeserialize(DORecordHeader** header, unsigned long* bufferSize,
                                                   void const* serialized, unsigned long serializedSize,
                                                   unsigned int dotype, unsigned char fptype);

// Option of the functions below, besides CR_DO_SUB_DO: the head's checksum word must be the Adler-32 of the body.
inline constexpr unsigned int CR_DO_FORM_CHECKSUM = 1;

// Validate the `size` bytes of an exchange form, which may be any bytes, and the rules of its segments, without
// building the record. A valid form makes a record. DORecordSerializedDiagnose reports the errors to `callback`, which
// may be null. Neither allocates.
// Returns: CR_STATUS_OK; CR_STATUS_CORRUPT_RECORD, from DORecordSerializedValidate with one trace line, "Invalid
// serialized DO: ...", if tracing is on; CR_STATUS_INVALID for null, an unknown DO type or fingerprint type, or other
// option bits.
CRRECORD_API cr_status_t DORecordSerializedValidate(void const* serialized, unsigned long size, unsigned int dotype,
                                                    unsigned char fptype, unsigned int options);
CRRECORD_API cr_status_t DORecordSerializedDiagnose(void const* serialized, unsigned long size, unsigned int dotype,
                                                    unsigned char fptype, unsigned int options,
                                                    cr_finding_callback_t callback, void* context);
