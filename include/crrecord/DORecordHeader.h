// Data-object (DO) records: the buffer format, and the functions that find their way in a bare buffer.
//
// A DO record is one contiguous buffer in host or in network (big-endian) byte order as a whole:
//
//     DO types 0, 1, 2, 3, 5:  header | entries | DCIDs | unique list | task ids | DSIDs | references | 24 zero bytes
//     DO type 4 (bloom):       header | bloom area  |     unique list | task ids | DSIDs | references |  4 zero bytes
//
// docs/format.md gives every byte. A header is in network order exactly when its type, read as big-endian, is 3; the
// functions here find that out and are right in both orders. On a big-endian machine the two orders are one.
//
// Trust: the sizes are computed in 64 bits and can't wrap. The index and start functions trust the counts in the header
// and don't look at the index: they are for buffers that passed validation, and indexes below the count.
//
// Threads: no state.

#pragma once

#include <crrecord/container.h>
#include <crrecord/export.h>
#include <crrecord/finding.h>
#include <crrecord/status.h>

inline constexpr unsigned int CR_DO_RECORD_TYPE = 3;
inline constexpr unsigned int CR_DO_HEADER_SIZE = 80;
// Bytes of a record whose counts are all 0, for every DO type: the bare header size.
inline constexpr unsigned int CR_DO_RECORD_SIZE = 104;

// How a record describes its segments. Stored in records: the values never change.
//
// | type | entry of a segment                        | size of a segment                | offset          |
// |------|-------------------------------------------|----------------------------------|-----------------|
// | 0, 1 | fingerprint                               | ssize; the last has what remains | none            |
// | 2    | fingerprint, 32-bit size                  | stored                           | none            |
// | 3    | fingerprint, 32-bit size, 64-bit offset   | stored                           | 64 bits, stored |
// | 4    | none: a bloom bitmap instead              | none                             | none            |
// | 5    | fingerprint, 32-bit size, 32-bit offset   | stored                           | 32 bits, stored |
inline constexpr unsigned char CR_DO_TYPE_ORIGINAL = 0;
inline constexpr unsigned char CR_DO_TYPE_NO_SIZE = 1;
inline constexpr unsigned char CR_DO_TYPE_NO_OFFSET = 2;
inline constexpr unsigned char CR_DO_TYPE_8_BYTE_OFFSET = 3;
inline constexpr unsigned char CR_DO_TYPE_BLOOM_FILTER = 4;
inline constexpr unsigned char CR_DO_TYPE_4_BYTE_OFFSET = 5;
inline constexpr unsigned char CR_DO_TYPE_LAST = CR_DO_TYPE_4_BYTE_OFFSET; // the greatest DO type
inline constexpr unsigned char CR_DO_TYPE_INVALID = 255;

// Non-zero for 0 to 5. Takes the whole value, so that 259 is not taken for 3.
CRRECORD_API int CRDOTypeIsValid(unsigned int dotype) noexcept;

// The fixed header. Alignment is 1, since records lie in mapped pages and database slices too. All integers are
// unsigned and turn with the record's byte order, but for ntaskid and nds, which stay as they were stored.
struct __attribute__((packed, may_alias)) DORecordHeader {
    unsigned short type;        // 0x00: 3
    unsigned short flags;       // 0x02: bits 0x0002 and 0x0004 only
    unsigned int recsize;       // 0x04: bytes of the whole record
    unsigned int reserved;      // 0x08: zero
    unsigned int checktime;     // 0x0c: time of the last check, seconds since the epoch
    unsigned long CID;          // 0x10: container of the record itself
    unsigned long size;         // 0x18: bytes of the object
    unsigned long ssize;        // 0x20: fixed segment size (DO types 0 and 1)
    unsigned int CRC;           // 0x28: checksum supplied by the creator
    unsigned int ctime;         // 0x2c: creation, seconds since the epoch
    unsigned int mtime;         // 0x30: last change, seconds since the epoch
    unsigned int ntaskid;       // 0x34: legacy task ids; never turned
    unsigned int nfp;           // 0x38: segments
    unsigned int nudcid;        // 0x3c: entries of the unique DCID list
    unsigned int nds;           // 0x40: legacy DSIDs; never turned
    unsigned int trefssize;     // 0x44: bytes of the typed-reference section
    unsigned int bsize;         // 0x48: bytes of the bloom bitmap (DO type 4)
    unsigned char fptype;       // 0x4c: fingerprint type
    unsigned char dotype;       // 0x4d: DO type
    unsigned char reserved2[2]; // 0x4e: zero
};
static_assert(sizeof(DORecordHeader) == CR_DO_HEADER_SIZE && alignof(DORecordHeader) == 1);

// A 64-bit integer in a record: no alignment. Name the type where you keep a pointer to one: auto loses it.
typedef unsigned long cr_unaligned_u64 __attribute__((aligned(1), may_alias));

// --- Sizes: bytes of a whole record with such counts --------------------------------------------------------------

// `n` is the number of segments, or the bytes of the bitmap for DO type 4.
CRRECORD_API unsigned long DORecordHeaderSizeRaw(unsigned int ntaskid, unsigned int n, unsigned int nudcid,
                                                 unsigned int nds, unsigned char dotype, unsigned char fptype,
                                                 unsigned int trefssize) noexcept;
// That of a bloom record, whatever `dotype` says.
CRRECORD_API unsigned long DORecordHeaderSizeWithBloom(unsigned int ntaskid, unsigned int bsize, unsigned int nudcid,
                                                       unsigned int nds, unsigned char dotype,
                                                       unsigned int trefssize) noexcept;

// --- Addresses ------------------------------------------------------------------------------------------------------

// Entry i and the fields in it: the fingerprint, which the entry begins with, the 32-bit size, and the 64-bit offset
// (DO type 3) or 32-bit object offset (DO type 5), which stand in the same place. They don't look at the DO type.
CRRECORD_API unsigned char* DORecordHeaderIndexOfSegment(DORecordHeader const* header, unsigned int i) noexcept;
CRRECORD_API unsigned char* DORecordHeaderIndexOfSegmentSize(DORecordHeader const* header, unsigned int i) noexcept;
CRRECORD_API unsigned char* DORecordHeaderIndexOfSegmentOffset(DORecordHeader const* header, unsigned int i) noexcept;
CRRECORD_API unsigned char* DORecordHeaderIndexOfSegmentObjectOffset(DORecordHeader const* header,
                                                                     unsigned int i) noexcept;
// The 64-bit DCID of segment i; index nfp is one past the end.
CRRECORD_API unsigned char* DORecordHeaderIndexOfDCID(DORecordHeader const* header, unsigned int i) noexcept;
// The unique DCID list (its checksum word), and the 64-bit DCID of its entry i.
CRRECORD_API unsigned char* DORecordHeaderStartUDCID(DORecordHeader const* header) noexcept;
CRRECORD_API unsigned char* DORecordHeaderIndexOfUDCID(DORecordHeader const* header, unsigned int i) noexcept;
// Legacy task id i, 64 bits, and legacy DSID i, 32 bits, which follow back to back.
CRRECORD_API unsigned char* DORecordHeaderIndexOfTaskId(DORecordHeader const* header, unsigned int i) noexcept;
CRRECORD_API unsigned char* DORecordHeaderIndexOfDataSelection(DORecordHeader const* header, unsigned int i) noexcept;
// The typed-reference section.
CRRECORD_API unsigned char* DORecordHeaderStartTRefs(DORecordHeader const* header) noexcept;
// The bloom area of a DO type 4 record; both give its length word.
CRRECORD_API unsigned char* DORecordHeaderStartBFBitmap(DORecordHeader const* header) noexcept;
CRRECORD_API unsigned char* DORecordHeaderGetBloomStart(DORecordHeader const* header) noexcept;
// The first byte of the bitmap; null without one, and for every DO type but 4.
CRRECORD_API unsigned char* DORecordHeaderGetBloom(DORecordHeader const* header) noexcept;

// The container of the record itself, as a host value.
CRRECORD_API unsigned long DORecordHeaderGetPOID(DORecordHeader const* header) noexcept;

// --- Byte order -----------------------------------------------------------------------------------------------------

// Turn a whole record in place between host and network order: header fields, segment sizes and offsets, the count of
// the unique list, the length word of the bloom area. Fingerprints, DCIDs, entries and checksum of the unique list,
// typed references and legacy arrays keep their bytes. Turning is its own inverse: a record that is converted already
// is converted again.
CRRECORD_API void DORecordHeaderHton(DORecordHeader* header) noexcept;
CRRECORD_API void DORecordHeaderNtoh(DORecordHeader* header) noexcept;

// --- Validation -----------------------------------------------------------------------------------------------------

// Options: the buffer is in network order; it must carry no references; it is a sub-DO, whose segments may reach 4 GiB.
inline constexpr unsigned int CR_DO_NETWORK_ORDER = 1;
inline constexpr unsigned int CR_DO_NO_REFERENCES = 2;
inline constexpr unsigned int CR_DO_SUB_DO = 4;

// Checks `size` received bytes, any bytes, and reads nothing else. A buffer that passes is memory-safe in every
// operation of the library, in both byte orders; and whatever the library built from good arguments passes (a received
// bloom record once its list is turned). 0; 9 for null or other option bits; 32 for a bad record, with exactly one
// trace line, "Invalid DO record: ...", while tracing is on.
CRRECORD_API cr_status_t DORecordHeaderValidate(void const* buffer, unsigned int size, unsigned int options);

// The same walk to its end: every error in the order of validation, then the notes, each given to `callback` (null is
// allowed, for the answer alone). A record without both is canonical: equal content has equal bytes. 0 without errors,
// 32 with one, 9 for null or other option bits. Allocates nothing.
CRRECORD_API cr_status_t DORecordDiagnose(void const* buffer, unsigned long size, unsigned int options,
                                          cr_finding_callback_t callback, void* context);

// --- Exchange form --------------------------------------------------------------------------------------------------

// Builds a record in host order from `serializedSize` bytes of an exchange form (docs/format.md), which carries neither
// DO type nor fingerprint type. *header and *bufferSize give a buffer to build in; where it is null or too small,
// *header is set to a new block (release it with free) and *bufferSize to its size. The new record has flags 0, CID 0
// and the time of the call as ctime; the head's checksum word becomes its CRC. A bloom record keeps its length word and
// its unique list big-endian. An unknown fingerprint type is taken as 16 bytes wide.
//
// The form and the given buffer must not overlap, whether the record fits or not.
//
// 0; 65 for a null pointer; 113 for an unknown DO type; 32 for bytes that are not such a form, to the last one; 9 for a
// record beyond 4 GiB - 1 and for a form that overlaps the buffer, which then keeps its bytes; 22 without memory. On
// failure both variables are as they were, and otherwise the bytes in the given buffer are unspecified.
CRRECORD_API cr_status_t DORecordHeaderDeserialize(DORecordHeader** header, unsigned long* bufferSize,
                                                   void const* serialized, unsigned long serializedSize,
                                                   unsigned int dotype, unsigned char fptype);

// Option: the head's checksum is the Adler-32 of the body, and must match. CR_DO_SUB_DO is the other one.
inline constexpr unsigned int CR_DO_FORM_CHECKSUM = 1;

// Check an exchange form, any bytes, and the rules of its segments, without building the record. A form that passes
// makes a record. 0; 32 for a bad form; 9 for null, an unknown DO type or fingerprint type, or other option bits.
// Validation writes one trace line while tracing is on, "Invalid serialized DO: ..."; the diagnosing pass goes on to
// the end. Neither allocates.
CRRECORD_API cr_status_t DORecordSerializedValidate(void const* serialized, unsigned long size, unsigned int dotype,
                                                    unsigned char fptype, unsigned int options);
CRRECORD_API cr_status_t DORecordSerializedDiagnose(void const* serialized, unsigned long size, unsigned int dotype,
                                                    unsigned char fptype, unsigned int options,
                                                    cr_finding_callback_t callback, void* context);
