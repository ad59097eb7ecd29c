// A reader of DO records, segment records and reference sections that needs no library: C11 or C++17, this header, the
// compiler's <stddef.h> and <stdint.h>. It allocates nothing, has no state and writes only what its callers pass.
//
// The library takes sizes, limits, layouts, codes and checks from this header, so both give the same results.
//
//     crr_do record;
//     crr_fault fault;
//     if (crr_do_open(&record, bytes, size, 0, &fault) != CRR_OK) { ... fault.code at fault.offset ... }
//     for (uint32_t i = 0; i < record.layout.segments; ++i) { crr_segment segment = crr_do_segment(&record, i); ... }
//
// crr_do_open and crr_so_open take any bytes, and read nothing else. Each count, size and type that decides what is
// read is read once, before it is used. The other functions read from an opened record; an index after the last gives
// zeros. Memory that changes after the record was opened can change values, but no function then reads outside of it.
//
// The comments that start with /*@ are contracts in ACSL. `make proof` proves them: each function reads only the bytes
// that its contract names, writes only what it names, does not overflow, and ends (docs/trust.md).
//
// Thread safety: the functions have no state.

#ifndef CRRECORD_READER_H
#define CRRECORD_READER_H

#include <stddef.h>
#include <stdint.h>

// Byte order of the machine that built the records: it has the fields that a conversion keeps. By default this machine.
// In C++ all sources of a program must have the same value.
#ifndef CRR_BIG_ENDIAN
#define CRR_BIG_ENDIAN (__BYTE_ORDER__ == __ORDER_BIG_ENDIAN__)
#endif

#ifdef __cplusplus
#define CRR_INLINE inline
#define CRR_CONSTEXPR constexpr
#define CRR_ENUM_INT : int
#else
#define CRR_INLINE static inline
#define CRR_CONSTEXPR static inline
#define CRR_ENUM_INT
#endif

// Keeps the compiler from reading memory again where the code uses a copy.
#if defined(__GNUC__) && !defined(__FRAMAC__)
#define CRR_READ_ONCE() __asm__ __volatile__("" ::: "memory")
#else
#define CRR_READ_ONCE() ((void)0)
#endif

// Codes of findings. The numbers never change and are never used again, since users store them. A new version may add
// codes. docs/findings.md has a page for each.
enum cr_finding_code_t CRR_ENUM_INT {
    // Segment records: errors, in the order in which they are reported.
    CR_FINDING_SO_LENGTH = 101,     // fewer bytes than the fixed part of a segment record
    CR_FINDING_SO_TYPE = 102,       // the record type is not that of a segment record
    CR_FINDING_SO_RECSIZE = 103,    // the record size is not the number of bytes given
    CR_FINDING_SO_CALCULATED = 104, // the counts don't add up to the number of bytes given
    CR_FINDING_SO_TASKIDS = 105,    // task ids although the options forbid them
    CR_FINDING_SO_FPTYPE = 106,     // an unknown fingerprint type
    // Segment records: notes. The record may be used.
    CR_FINDING_SO_FLAGS = 151,    // flags other than 0 and 2
    CR_FINDING_SO_DCID = 152,     // a reserved container id: 0, or 2 to 63
    CR_FINDING_SO_RESERVED = 153, // the reserved byte is not zero
    CR_FINDING_SO_SPARE = 154,    // the spare slot at the record's end is not zero

    // DO records: errors, in the order in which they are reported.
    CR_FINDING_DO_LENGTH = 201,         // fewer bytes than the smallest record
    CR_FINDING_DO_TYPE = 202,           // the record type is not that of a DO record
    CR_FINDING_DO_RECSIZE = 203,        // the record size is not the number of bytes given
    CR_FINDING_DO_FLAGS = 204,          // flags with an unknown bit
    CR_FINDING_DO_DOTYPE = 205,         // an unknown DO type
    CR_FINDING_DO_FPTYPE = 206,         // an unknown fingerprint type
    CR_FINDING_DO_BLOOM_SEGMENTS = 207, // a bloom record with a count of segments
    CR_FINDING_DO_CALCULATED = 208,     // the counts don't add up to the number of bytes given
    CR_FINDING_DO_LIST_COUNT = 209,     // the unique DCID list's count is not the header's
    CR_FINDING_DO_LIST_CHECKSUM = 210,  // the unique DCID list doesn't match its checksum
    CR_FINDING_SEGMENT_PRODUCT = 211,   // segment size times segments, in 64 bits, is less than the object size
    CR_FINDING_SEGMENT_SUM = 212,       // the sizes don't add up to the object size
    CR_FINDING_SEGMENT_SIZE = 213,      // a segment of 2 GiB or more
    CR_FINDING_SEGMENT_OFFSET = 214,    // an offset of 8192 PiB or more
    CR_FINDING_SEGMENT_OVERLAP = 215,   // a segment starts before the end of the one before it
    CR_FINDING_SEGMENT_END = 216,       // the last segment ends after the object
    CR_FINDING_DO_REFERENCES = 217,     // references although the options forbid them
    CR_FINDING_DO_REFERENCE = 218,      // bytes in the reference section that are not a reference
    // DO records: notes.
    CR_FINDING_DO_BLOOM_LENGTH = 251,    // the bloom length word is not bsize, or in the other order
    CR_FINDING_DO_DCID = 252,            // a segment in a reserved container, below 64
    CR_FINDING_DO_LEGACY = 253,          // legacy task-id or DSID arrays
    CR_FINDING_DO_LIST_ORDER = 254,      // the checksum of the unique DCID list was taken in network order
    CR_FINDING_DO_LIST_UNSORTED = 255,   // the unique DCID list is not ascending
    CR_FINDING_DO_REFERENCE_ORDER = 256, // references not ascending, or repeated
    CR_FINDING_DO_NON_ZERO = 257,        // a reserved byte or one after the last section is not zero
    CR_FINDING_DO_BSIZE = 258,           // bsize is not zero in a record without a bitmap
    // Exchange forms of DO records: errors, besides those of segments from 211 to 216.
    CR_FINDING_FORM_LENGTH = 301,         // fewer bytes than the smallest form
    CR_FINDING_FORM_ZERO = 302,           // the word at 24, the separator or the end is not zero
    CR_FINDING_FORM_BLOOM_SEGMENTS = 303, // a bloom form with a count of segments
    CR_FINDING_FORM_CALCULATED = 304,     // the counts don't add up to the number of bytes given
    CR_FINDING_FORM_TOO_LARGE = 305,      // the record would exceed 4 GiB - 1 bytes
    CR_FINDING_FORM_FINGERPRINT = 306,    // a text that is not a fingerprint
    CR_FINDING_FORM_LIST_CHECKSUM = 307,  // the unique DCID list doesn't match its checksum
    CR_FINDING_FORM_CHECKSUM = 308,       // the body doesn't match the checksum
};

// Statuses: the values of CR_STATUS_OK, CR_STATUS_INVALID and CR_STATUS_CORRUPT_RECORD.
enum { CRR_OK = 0, CRR_INVALID = 9, CRR_CORRUPT_RECORD = 32 };

// Options of crr_do_open, and of crr_so_open the first and CRR_NO_TASKIDS.
enum { CRR_NETWORK_ORDER = 1, CRR_NO_REFERENCES = 2, CRR_SUB_DO = 4, CRR_NO_TASKIDS = 2 };

// Record types, sizes in bytes, and limits.
enum {
    CRR_SO_TYPE = 2,
    CRR_SO_FIXED_SIZE = 96,
    CRR_SO_SPARE_SIZE = 8,
    CRR_SO_SIZE = CRR_SO_FIXED_SIZE + CRR_SO_SPARE_SIZE, // of the smallest segment record
    CRR_SO_KEY_SIZE = 33,
    CRR_DO_TYPE = 3,
    CRR_DO_HEADER_SIZE = 80,
    CRR_DO_SIZE = 104,     // of the smallest DO record
    CRR_DO_FLAGS = 0x0006, // the flags that a record may have
    CRR_DOTYPE_BLOOM = 4,
    CRR_DOTYPE_LAST = 5,
    CRR_FPTYPE_SHA256 = 3,
    CRR_FPTYPE_LAST = 3,
    CRR_REFERENCE_DSID = 4,
    CRR_REFERENCE_KINDS = 11,
    CRR_REFERENCE_HEAD_SIZE = 2, // kind, and length of the id
    CRR_TASKID_SIZE = 8,
    CRR_DSID_SIZE = 4,
    CRR_DCID_SIZE = 8,
    CRR_LIST_COUNT = 4,  // position of the unique DCID list's count
    CRR_LIST_HEAD = 8,   // checksum and count
    CRR_LIST_ENTRY = 16, // DCID, and a number of bytes
    CRR_BLOOM_LENGTH_SIZE = 4,
    CRR_BLOOM_END_SIZE = 16, // zeros after the bitmap
    CRR_TAIL_SIZE = 24,      // zeros at the record's end
    CRR_BLOOM_TAIL_SIZE = 4  // the same for DO type 4
};

// The first value of a segment's size and of its offset that is probably in the wrong byte order.
#define CRR_IMPLAUSIBLE_SIZE UINT32_C(0x80000000)
#define CRR_IMPLAUSIBLE_OFFSET UINT64_C(0x8000000000000000)

// How a DO type's segments make up the object.
enum {
    CRR_CHECK_NONE,    // not checked
    CRR_CHECK_PRODUCT, // sizes are derived: the segment size times the number of segments is at least the object's size
    CRR_CHECK_SUM,     // the stored sizes add up to the object's size
    CRR_CHECK_OFFSETS  // the segments ascend, do not overlap, and end within the object
};

// The first error: a code, or 0 for none; the offset of the first byte concerned; host values. If several values are
// allowed, `expected` is a limit or the nearest of them.
typedef struct crr_fault {
    int code;
    uint64_t offset, found, expected;
} crr_fault;

// --- Integers -------------------------------------------------------------------------------------------------------

// Sums, differences and products that the format takes modulo 2^64. No address depends on their results.
/*@ assigns \nothing; */
CRR_CONSTEXPR uint64_t crr_wrapping_add(uint64_t a, uint64_t b) {
    return a + b;
}
/*@ assigns \nothing; */
CRR_CONSTEXPR uint64_t crr_wrapping_subtract(uint64_t a, uint64_t b) {
    return a - b;
}
/*@ assigns \nothing; */
CRR_CONSTEXPR uint64_t crr_wrapping_multiply(uint64_t a, uint64_t b) {
    return a * b;
}

// Read an integer that needs no alignment; `big` is non-zero for big-endian.
/*@ requires \valid_read(p + (0 .. 1));
    assigns \nothing; */
CRR_CONSTEXPR uint16_t crr_load16(unsigned char const* p, int big) {
    return (uint16_t)(big ? (uint32_t)p[0] << 8 | p[1] : (uint32_t)p[1] << 8 | p[0]);
}
/*@ requires \valid_read(p + (0 .. 3));
    assigns \nothing; */
CRR_CONSTEXPR uint32_t crr_load32(unsigned char const* p, int big) {
    return big ? (uint32_t)p[0] << 24 | (uint32_t)p[1] << 16 | (uint32_t)p[2] << 8 | p[3]
               : (uint32_t)p[3] << 24 | (uint32_t)p[2] << 16 | (uint32_t)p[1] << 8 | p[0];
}
/*@ requires \valid_read(p + (0 .. 7));
    assigns \nothing; */
CRR_CONSTEXPR uint64_t crr_load64(unsigned char const* p, int big) {
    return big ? (uint64_t)crr_load32(p, 1) << 32 | crr_load32(p + 4, 1)
               : (uint64_t)crr_load32(p + 4, 0) << 32 | crr_load32(p, 0);
}

// Returns: non-zero if the byte order of a record with these options is big-endian.
/*@ assigns \nothing; */
CRR_CONSTEXPR int crr_is_big(unsigned options) {
    return CRR_BIG_ENDIAN || (options & CRR_NETWORK_ORDER) != 0;
}

// Continues the Adler-32 `sum` of the bytes before, 1 for none, with the bytes from `from` to `to`.
/*@ requires from <= to && \valid_read(bytes + (from .. to - 1));
    assigns \nothing; */
CRR_CONSTEXPR uint32_t crr_adler32(uint32_t sum, unsigned char const* bytes, uint64_t from, uint64_t to) {
    uint32_t a = (sum & 0xffff) % 65521, b = (sum >> 16) % 65521;
    /*@ loop invariant \at(from, Pre) <= from <= to && a < 65521 && b < 65521;
        loop assigns from, a, b;
        loop variant to - from; */
    while (from < to) {
        // 256 bytes cannot make the sums overflow.
        uint64_t const count = to - from < 256 ? to - from : 256;
        /*@ loop invariant 0 <= i <= count && a <= 65520 + 255 * i && b <= 65520 + 130800 * i;
            loop assigns i, a, b;
            loop variant count - i; */
        for (uint64_t i = 0; i < count; ++i) {
            a += bytes[from + i];
            b += a;
        }
        a %= 65521;
        b %= 65521;
        from += count;
    }
    return b * 65536 + a;
}

// --- Types ----------------------------------------------------------------------------------------------------------

// Bytes of a fingerprint: 32 for type 3, 16 for every other type, also an unknown one.
/*@ assigns \nothing;
    ensures \result == 16 || \result == 32; */
CRR_CONSTEXPR unsigned crr_fingerprint_size(unsigned fptype) {
    return fptype == CRR_FPTYPE_SHA256 ? 32 : 16;
}

// Bytes of the size and of the offset in an entry, and the check of the list; of an unknown DO type none.
/*@ assigns \nothing;
    ensures \result == (dotype == 2 || dotype == 3 || dotype == 5 ? 4 : 0); */
CRR_CONSTEXPR unsigned crr_size_width(unsigned dotype) {
    return dotype == 2 || dotype == 3 || dotype == 5 ? 4 : 0;
}
/*@ assigns \nothing;
    ensures \result == (dotype == 3 ? 8 : dotype == 5 ? 4 : 0); */
CRR_CONSTEXPR unsigned crr_offset_width(unsigned dotype) {
    return dotype == 3 ? 8 : dotype == 5 ? 4 : 0;
}
/*@ assigns \nothing;
    ensures \result == CRR_CHECK_OFFSETS <==> dotype == 3;
    ensures \result == CRR_CHECK_SUM <==> dotype == 2 || dotype == 5; */
CRR_CONSTEXPR int crr_list_check(unsigned dotype) {
    return dotype == 0 || dotype == 1   ? CRR_CHECK_PRODUCT
           : dotype == 2 || dotype == 5 ? CRR_CHECK_SUM
           : dotype == 3                ? CRR_CHECK_OFFSETS
                                        : CRR_CHECK_NONE;
}

// The entry of a segment: positions of its fields after its fingerprint, and its size, in bytes.
typedef struct crr_entry {
    unsigned fingerprint; // bytes of the fingerprint, and the position of the size
    unsigned offset;      // position of the offset, even if there is none
    unsigned stride;      // bytes of the entry
    unsigned size_width, offset_width;
    int check;
} crr_entry;

/*@ predicate crr_entry_is_valid(crr_entry e) =
      16 <= e.fingerprint <= 65 && e.offset == e.fingerprint + 4 &&
      (e.size_width == 0 || e.size_width == 4) &&
      (e.offset_width == 0 || e.offset_width == 4 || e.offset_width == 8) &&
      e.stride == e.fingerprint + e.size_width + e.offset_width &&
      (e.size_width == 0 ==> e.offset_width == 0 && e.check != CRR_CHECK_SUM) &&
      (e.check == CRR_CHECK_OFFSETS ==> e.offset_width == 8); */

// The entry of a DO type whose fingerprints take `fingerprint` bytes: 16 or 32, or in an exchange form 33 or 65.
/*@ requires 16 <= fingerprint <= 65;
    assigns \nothing;
    ensures crr_entry_is_valid(\result) && \result.fingerprint == fingerprint; */
CRR_CONSTEXPR crr_entry crr_entry_of(unsigned dotype, unsigned fingerprint) {
    unsigned const size = crr_size_width(dotype), offset = crr_offset_width(dotype);
    crr_entry const entry = {fingerprint, fingerprint + 4, fingerprint + size + offset,
                             size,        offset,          crr_list_check(dotype)};
    return entry;
}

// Size of segment `i` of `count` if entries store none: `ssize`, and the rest of the object for the last segment, cut
// to 32 bits. Without segments the last index is 2^32 - 1.
/*@ assigns \nothing; */
CRR_CONSTEXPR uint32_t crr_derived_size(uint32_t i, uint32_t count, uint64_t object_size, uint64_t ssize) {
    int const last = count == 0 ? i == UINT32_MAX : i == count - 1;
    return (uint32_t)((last ? crr_wrapping_subtract(object_size, crr_wrapping_multiply(i, ssize)) : ssize) &
                      UINT32_MAX);
}

// --- References -----------------------------------------------------------------------------------------------------

// A typed reference: its kind, 0 to 10, and its id.
typedef struct crr_reference {
    int kind;
    uint64_t id;
} crr_reference;

// Decodes the reference at the start of `available` bytes, which may be any bytes, but its kind, which was read before:
// the kind that is checked is the kind that is used, even if the memory changes.
// Returns: the bytes that it takes; 0, with *reference unchanged, if the bytes are no reference.
/*@ requires \valid_read(bytes + (0 .. available - 1)) && \valid(reference);
    requires \separated(reference, bytes + (0 .. available - 1));
    assigns *reference;
    ensures \result <= available && (\result == 0 || \result == 6 || \result == 10); */
CRR_INLINE unsigned crr_reference_decode_as(unsigned char kind, unsigned char const* bytes, uint64_t available,
                                            crr_reference* reference) {
    int const is_dsid = kind == CRR_REFERENCE_DSID;
    unsigned const width = is_dsid ? 4 : 8;
    if (kind >= CRR_REFERENCE_KINDS || available < CRR_REFERENCE_HEAD_SIZE + width || bytes[1] != width) {
        return 0;
    }
    reference->kind = kind;
    reference->id =
        is_dsid ? crr_load32(bytes + CRR_REFERENCE_HEAD_SIZE, 1) : crr_load64(bytes + CRR_REFERENCE_HEAD_SIZE, 1);
    return CRR_REFERENCE_HEAD_SIZE + width;
}

// The same with its kind. Each byte is read once.
/*@ requires \valid_read(bytes + (0 .. available - 1)) && \valid(reference);
    requires \separated(reference, bytes + (0 .. available - 1));
    assigns *reference;
    ensures \result <= available && (\result == 0 || \result == 6 || \result == 10); */
CRR_INLINE unsigned crr_reference_decode(unsigned char const* bytes, uint64_t available, crr_reference* reference) {
    if (available == 0) {
        return 0;
    }
    unsigned char const volatile* const head = bytes;
    return crr_reference_decode_as(*head, bytes, available, reference);
}

// The first error of the section of references from `from` to `to`, with an offset from `bytes`.
/*@ requires from <= to && \valid_read(bytes + (from .. to - 1));
    assigns \nothing; */
CRR_INLINE crr_fault crr_references_fault(unsigned char const* bytes, uint64_t from, uint64_t to) {
    crr_fault fault = {0, 0, 0, 0};
    /*@ loop invariant \at(from, Pre) <= from <= to;
        loop assigns from, fault;
        loop variant to - from; */
    while (from < to) {
        crr_reference reference = {0, 0};
        unsigned char const volatile* const head = bytes + from;
        unsigned char const kind = *head;
        unsigned const taken = crr_reference_decode_as(kind, bytes + from, to - from, &reference);
        if (taken == 0) {
            fault.code = CR_FINDING_DO_REFERENCE;
            fault.offset = from;
            fault.found = kind;
            return fault;
        }
        from += taken;
    }
    return fault;
}

// --- Layout of DO records -------------------------------------------------------------------------------------------

// The fixed header as host values. Each member has the offset of its field in a record.
typedef struct crr_do_header {
    uint16_t type;      // 3
    uint16_t flags;     // bits of CRR_DO_FLAGS
    uint32_t recsize;   // bytes of the whole record
    uint32_t reserved;  // zero; kept by conversions, as it is stored
    uint32_t checktime; // time of the last check, seconds since the epoch
    uint64_t cid;       // container of the record itself
    uint64_t size;      // bytes of the object
    uint64_t ssize;     // fixed segment size in bytes (DO types 0 and 1)
    uint32_t crc;       // checksum supplied by the creator
    uint32_t ctime;     // creation, seconds since the epoch
    uint32_t mtime;     // last change, seconds since the epoch
    uint32_t ntaskid;   // number of legacy task ids
    uint32_t nfp;       // number of segments
    uint32_t nudcid;    // number of entries of the unique DCID list
    uint32_t nds;       // number of legacy DSIDs
    uint32_t trefssize; // bytes of the typed references
    uint32_t bsize;     // bytes of the bloom bitmap (DO type 4)
    unsigned char fptype;
    unsigned char dotype;
    unsigned char reserved2[2]; // zero
} crr_do_header;

#ifdef __cplusplus
static_assert(sizeof(crr_do_header) == CRR_DO_HEADER_SIZE, "a member with another offset than its field");
#else
_Static_assert(sizeof(crr_do_header) == CRR_DO_HEADER_SIZE, "a member with another offset than its field");
#endif

// Offsets of the sections from the start of the record, in bytes, in their order; each section ends where the next one
// starts. `segments` is the number of entries and of DCIDs: 0 in a bloom record, even if its nfp is not 0.
typedef struct crr_do_layout {
    uint64_t entries; // in a bloom record, the bloom area
    uint64_t dcids;
    uint64_t udcids;
    uint64_t taskids;
    uint64_t dsids;
    uint64_t trefs;
    uint64_t tail;
    uint64_t total; // bytes of the record
    uint32_t segments;
} crr_do_layout;

// The counts that determine the layout, and whether the DO type is CRR_DOTYPE_BLOOM.
typedef struct crr_do_counts {
    uint32_t ntaskid, nfp, nudcid, nds, trefssize, bsize;
    int bloom;
} crr_do_counts;

// Bytes of a unique DCID list.
/*@ assigns \nothing;
    ensures \result == (nudcid == 0 ? 0 : CRR_LIST_HEAD + CRR_LIST_ENTRY * nudcid); */
CRR_CONSTEXPR uint64_t crr_list_size(uint32_t nudcid) {
    return nudcid == 0 ? 0 : CRR_LIST_HEAD + (uint64_t)CRR_LIST_ENTRY * nudcid;
}

/*@ predicate crr_layout_is_ordered(crr_do_layout l) =
      l.entries == CRR_DO_HEADER_SIZE && l.entries <= l.dcids && l.dcids <= l.udcids <= l.taskids <= l.dsids <= l.trefs
   <= l.tail && l.tail + CRR_BLOOM_TAIL_SIZE <= l.total < 0x8000000000; */

// The layout by the counts of a header, which may be any, with entries of `stride` bytes.
/*@ requires \valid_read(counts) && 16 <= stride <= 44;
    assigns \nothing;
    ensures crr_layout_is_ordered(\result);
    ensures counts->bloom != 0 ==> \result.segments == 0 &&
      \result.udcids == \result.entries + CRR_BLOOM_LENGTH_SIZE + counts->bsize + CRR_BLOOM_END_SIZE;
    ensures counts->bloom == 0 ==> \result.udcids == \result.dcids + CRR_DCID_SIZE * \result.segments;
    ensures counts->nudcid != 0 ==> \result.taskids == \result.udcids + CRR_LIST_HEAD + CRR_LIST_ENTRY * counts->nudcid;
    ensures \result.dsids == \result.taskids + CRR_TASKID_SIZE * counts->ntaskid;
    ensures \result.trefs == \result.dsids + CRR_DSID_SIZE * counts->nds; */
CRR_CONSTEXPR crr_do_layout crr_do_layout_of(crr_do_counts const* counts, unsigned stride) {
    crr_do_layout layout = {CRR_DO_HEADER_SIZE, 0, 0, 0, 0, 0, 0, 0, 0};
    layout.segments = counts->bloom ? 0 : counts->nfp;
    //@ assert layout.segments * stride <= layout.segments * 44;
    layout.dcids = layout.entries + (uint64_t)layout.segments * stride;
    layout.udcids = counts->bloom ? layout.entries + CRR_BLOOM_LENGTH_SIZE + counts->bsize + CRR_BLOOM_END_SIZE
                                  : layout.dcids + (uint64_t)CRR_DCID_SIZE * layout.segments;
    layout.taskids = layout.udcids + crr_list_size(counts->nudcid);
    layout.dsids = layout.taskids + (uint64_t)CRR_TASKID_SIZE * counts->ntaskid;
    layout.trefs = layout.dsids + (uint64_t)CRR_DSID_SIZE * counts->nds;
    layout.tail = layout.trefs + counts->trefssize;
    layout.total = layout.tail + (counts->bloom ? CRR_BLOOM_TAIL_SIZE : CRR_TAIL_SIZE);
    return layout;
}

// Reads the header of a record. The legacy counts are in the byte order of the machine that built it.
/*@ requires \valid_read(b + (0 .. CRR_DO_HEADER_SIZE - 1));
    assigns \nothing; */
CRR_CONSTEXPR crr_do_header crr_do_read_header(unsigned char const* b, int big) {
    crr_do_header h = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, {0, 0}};
    h.type = crr_load16(b + offsetof(crr_do_header, type), big);
    h.flags = crr_load16(b + offsetof(crr_do_header, flags), big);
    h.recsize = crr_load32(b + offsetof(crr_do_header, recsize), big);
    h.reserved = crr_load32(b + offsetof(crr_do_header, reserved), CRR_BIG_ENDIAN);
    h.checktime = crr_load32(b + offsetof(crr_do_header, checktime), big);
    h.cid = crr_load64(b + offsetof(crr_do_header, cid), big);
    h.size = crr_load64(b + offsetof(crr_do_header, size), big);
    h.ssize = crr_load64(b + offsetof(crr_do_header, ssize), big);
    h.crc = crr_load32(b + offsetof(crr_do_header, crc), big);
    h.ctime = crr_load32(b + offsetof(crr_do_header, ctime), big);
    h.mtime = crr_load32(b + offsetof(crr_do_header, mtime), big);
    h.ntaskid = crr_load32(b + offsetof(crr_do_header, ntaskid), CRR_BIG_ENDIAN);
    h.nfp = crr_load32(b + offsetof(crr_do_header, nfp), big);
    h.nudcid = crr_load32(b + offsetof(crr_do_header, nudcid), big);
    h.nds = crr_load32(b + offsetof(crr_do_header, nds), CRR_BIG_ENDIAN);
    h.trefssize = crr_load32(b + offsetof(crr_do_header, trefssize), big);
    h.bsize = crr_load32(b + offsetof(crr_do_header, bsize), big);
    h.fptype = b[offsetof(crr_do_header, fptype)];
    h.dotype = b[offsetof(crr_do_header, dotype)];
    h.reserved2[0] = b[offsetof(crr_do_header, reserved2)];
    h.reserved2[1] = b[offsetof(crr_do_header, reserved2) + 1];
    return h;
}

// --- Checks of DO records -------------------------------------------------------------------------------------------

/*@ assigns \nothing;
    ensures \result.code == code && \result.offset == offset && \result.found == found && \result.expected == expected;
 */
CRR_CONSTEXPR crr_fault crr_fault_of(int code, uint64_t offset, uint64_t found, uint64_t expected) {
    crr_fault const fault = {code, offset, found, expected};
    return fault;
}

// The first error of a header with a code above `after`, in a record of `size` bytes whose counts give `total` bytes.
/*@ requires \valid_read(h);
    assigns \nothing;
    ensures \result.code == 0 ==> after < CR_FINDING_DO_TYPE ==> total == size && h->dotype <= CRR_DOTYPE_LAST;
    ensures \result.code == 0 || after < \result.code <= CR_FINDING_DO_CALCULATED; */
CRR_CONSTEXPR crr_fault crr_do_header_fault(crr_do_header const* h, uint64_t total, uint64_t size, int after) {
    if (after < CR_FINDING_DO_TYPE && h->type != CRR_DO_TYPE) {
        return crr_fault_of(CR_FINDING_DO_TYPE, offsetof(crr_do_header, type), h->type, CRR_DO_TYPE);
    }
    if (after < CR_FINDING_DO_RECSIZE && h->recsize != size) {
        return crr_fault_of(CR_FINDING_DO_RECSIZE, offsetof(crr_do_header, recsize), h->recsize, size);
    }
    if (after < CR_FINDING_DO_FLAGS && (h->flags & ~(unsigned)CRR_DO_FLAGS) != 0) {
        return crr_fault_of(CR_FINDING_DO_FLAGS, offsetof(crr_do_header, flags), h->flags, h->flags & CRR_DO_FLAGS);
    }
    if (after < CR_FINDING_DO_DOTYPE && h->dotype > CRR_DOTYPE_LAST) {
        return crr_fault_of(CR_FINDING_DO_DOTYPE, offsetof(crr_do_header, dotype), h->dotype, CRR_DOTYPE_LAST);
    }
    if (after < CR_FINDING_DO_FPTYPE && h->fptype > CRR_FPTYPE_LAST) {
        return crr_fault_of(CR_FINDING_DO_FPTYPE, offsetof(crr_do_header, fptype), h->fptype, CRR_FPTYPE_LAST);
    }
    if (after < CR_FINDING_DO_BLOOM_SEGMENTS && h->dotype == CRR_DOTYPE_BLOOM && h->nfp != 0) {
        return crr_fault_of(CR_FINDING_DO_BLOOM_SEGMENTS, offsetof(crr_do_header, nfp), h->nfp, 0);
    }
    if (after < CR_FINDING_DO_CALCULATED && total != size) {
        return crr_fault_of(CR_FINDING_DO_CALCULATED, offsetof(crr_do_header, nfp), total, size);
    }
    return crr_fault_of(0, 0, 0, 0);
}

// The error of a unique DCID list at `at` with that count or, if its count is right, with that checksum. A checksum
// made with the count in network order is accepted.
/*@ requires at < 0x8000000000;
    assigns \nothing; */
CRR_CONSTEXPR crr_fault crr_list_count_fault(uint64_t at, uint32_t count, uint32_t nudcid) {
    return count == nudcid ? crr_fault_of(0, 0, 0, 0)
                           : crr_fault_of(CR_FINDING_DO_LIST_COUNT, at + CRR_LIST_COUNT, count, nudcid);
}
/*@ assigns \nothing; */
CRR_CONSTEXPR crr_fault crr_list_checksum_fault(uint64_t at, uint32_t stored, uint32_t host, uint32_t network) {
    return stored == host || stored == network ? crr_fault_of(0, 0, 0, 0)
                                               : crr_fault_of(CR_FINDING_DO_LIST_CHECKSUM, at, stored, host);
}

// The checksum of a unique DCID list at `at` with its count in that byte order.
/*@ requires at < 0x8000000000;
    requires \valid_read(bytes + (at .. at + CRR_LIST_HEAD + CRR_LIST_ENTRY * count - 1));
    assigns \nothing; */
CRR_CONSTEXPR uint32_t crr_list_checksum(unsigned char const* bytes, uint64_t at, uint32_t count, int big) {
    unsigned char const c0 = (unsigned char)(count & 0xff), c1 = (unsigned char)(count >> 8 & 0xff),
                        c2 = (unsigned char)(count >> 16 & 0xff), c3 = (unsigned char)(count >> 24);
    unsigned char const word[4] = {big ? c3 : c0, big ? c2 : c1, big ? c1 : c2, big ? c0 : c3};
    uint64_t const from = at + CRR_LIST_HEAD;
    return crr_adler32(crr_adler32(1, word, 0, 4), bytes, from, from + (uint64_t)CRR_LIST_ENTRY * count);
}

// A list of segments: entries from `from` to `to` in `bytes`, and what the header has of the object.
typedef struct crr_segments {
    unsigned char const* bytes;
    uint64_t from, to;
    crr_entry entry;
    uint64_t size, ssize;
    uint32_t count;
    int big;          // byte order of sizes and offsets
    int sub_do;       // sizes may have up to 4 GiB - 1
    uint64_t at_size; // offset of the object's size
} crr_segments;

// The first error of a list. Each size and offset is read once.
/*@ requires \valid_read(s) && crr_entry_is_valid(s->entry);
    requires s->from <= s->to && s->to < 0x8000000000 && \valid_read(s->bytes + (s->from .. s->to - 1));
    assigns \nothing; */
CRR_CONSTEXPR crr_fault crr_segments_fault(crr_segments const* s) {
    crr_fault size_fault = {0, 0, 0, 0}, offset_fault = {0, 0, 0, 0}, overlap = {0, 0, 0, 0};
    uint64_t sum = 0, end = 0;
    if (s->entry.check == CRR_CHECK_PRODUCT) {
        uint64_t const product = crr_wrapping_multiply(s->ssize, s->count);
        return s->size > product ? crr_fault_of(CR_FINDING_SEGMENT_PRODUCT, s->at_size, s->size, product) : size_fault;
    }
    if (s->entry.check == CRR_CHECK_NONE) {
        return size_fault;
    }
    uint64_t at = s->from;
    /*@ loop invariant s->from <= at <= s->to;
        loop assigns at, sum, end, size_fault, offset_fault, overlap;
        loop variant s->to - at; */
    while (s->to - at >= s->entry.stride) {
        uint64_t const size_at = at + s->entry.fingerprint, offset_at = at + s->entry.offset;
        uint32_t const size = s->entry.size_width == 4 ? crr_load32(s->bytes + size_at, s->big) : 0;
        if (size >= CRR_IMPLAUSIBLE_SIZE && !s->sub_do && size_fault.code == 0) {
            size_fault = crr_fault_of(CR_FINDING_SEGMENT_SIZE, size_at, size, CRR_IMPLAUSIBLE_SIZE - 1);
        }
        sum = crr_wrapping_add(sum, size);
        if (s->entry.check == CRR_CHECK_OFFSETS) {
            uint64_t const offset = crr_load64(s->bytes + offset_at, s->big);
            if (offset >= CRR_IMPLAUSIBLE_OFFSET && offset_fault.code == 0) {
                offset_fault = crr_fault_of(CR_FINDING_SEGMENT_OFFSET, offset_at, offset, CRR_IMPLAUSIBLE_OFFSET - 1);
            }
            if (offset < end && overlap.code == 0) {
                overlap = crr_fault_of(CR_FINDING_SEGMENT_OVERLAP, offset_at, offset, end);
            }
            end = crr_wrapping_add(offset, size);
        }
        at += s->entry.stride;
    }
    if (size_fault.code != 0) {
        return size_fault;
    }
    if (s->entry.check == CRR_CHECK_SUM) {
        return sum == s->size ? size_fault : crr_fault_of(CR_FINDING_SEGMENT_SUM, s->at_size, s->size, sum);
    }
    if (offset_fault.code != 0) {
        return offset_fault;
    }
    if (overlap.code != 0) {
        return overlap;
    }
    return end > s->size ? crr_fault_of(CR_FINDING_SEGMENT_END, s->at_size, s->size, end) : overlap;
}

// The error of references although CRR_NO_REFERENCES forbids them.
/*@ requires \valid_read(l) && crr_layout_is_ordered(*l);
    assigns \nothing; */
CRR_CONSTEXPR crr_fault crr_no_references_fault(crr_do_layout const* l, unsigned options) {
    return (options & CRR_NO_REFERENCES) != 0 && l->tail != l->taskids
               ? crr_fault_of(CR_FINDING_DO_REFERENCES, offsetof(crr_do_header, trefssize), l->tail - l->taskids, 0)
               : crr_fault_of(0, 0, 0, 0);
}

// --- DO records -----------------------------------------------------------------------------------------------------

// An opened record. The members are for reading.
//
// Lifetime: that of the bytes.
typedef struct crr_do {
    unsigned char const* bytes;
    crr_do_header header; // host values
    crr_entry entry;
    crr_do_layout layout;
    int big; // byte order of the bytes
} crr_do;

/*@ predicate crr_do_is_laid_out(crr_do* r) =
      r->layout.entries == CRR_DO_HEADER_SIZE && r->layout.entries <= r->layout.dcids &&
      r->layout.dcids <= r->layout.udcids && r->layout.udcids <= r->layout.taskids &&
      r->layout.taskids <= r->layout.dsids && r->layout.dsids <= r->layout.trefs &&
      r->layout.trefs <= r->layout.tail && r->layout.tail + CRR_BLOOM_TAIL_SIZE <= r->layout.total < 0x8000000000 &&
      (r->header.dotype == CRR_DOTYPE_BLOOM ==> r->layout.segments == 0 &&
        r->layout.udcids == r->layout.entries + CRR_BLOOM_LENGTH_SIZE + r->header.bsize + CRR_BLOOM_END_SIZE) &&
      (r->header.dotype != CRR_DOTYPE_BLOOM ==>
        r->layout.udcids == r->layout.dcids + CRR_DCID_SIZE * r->layout.segments) &&
      (r->header.nudcid != 0 ==>
        r->layout.taskids == r->layout.udcids + CRR_LIST_HEAD + CRR_LIST_ENTRY * r->header.nudcid) &&
      r->layout.dsids == r->layout.taskids + CRR_TASKID_SIZE * r->header.ntaskid &&
      r->layout.trefs == r->layout.dsids + CRR_DSID_SIZE * r->header.nds;
    predicate crr_do_has_entries(crr_do* r) =
      (r->entry.fingerprint == 16 || r->entry.fingerprint == 32) && r->entry.offset == r->entry.fingerprint + 4 &&
      (r->entry.size_width == 0 || r->entry.size_width == 4) &&
      (r->entry.offset_width == 0 || r->entry.offset_width == 4 || r->entry.offset_width == 8) &&
      r->entry.stride == r->entry.fingerprint + r->entry.size_width + r->entry.offset_width &&
      (r->entry.size_width == 0 ==> r->entry.offset_width == 0 && r->entry.check != CRR_CHECK_SUM) &&
      (r->entry.check == CRR_CHECK_OFFSETS ==> r->entry.offset_width == 8);
    predicate crr_do_is_open(crr_do* r) = \valid_read(r) && \valid_read(r->bytes + (0 .. r->layout.total - 1)) &&
      crr_do_is_laid_out(r) && crr_do_has_entries(r); */

// The first error of the sections of a record whose header has none.
/*@ requires crr_do_is_open(r);
    assigns \nothing; */
CRR_INLINE crr_fault crr_do_sections_fault(crr_do const* r, unsigned options) {
    crr_fault fault = {0, 0, 0, 0};
    uint64_t const list = r->layout.udcids;
    if (r->header.nudcid != 0) {
        uint32_t const stored = crr_load32(r->bytes + list, CRR_BIG_ENDIAN);
        fault = crr_list_count_fault(list, crr_load32(r->bytes + list + CRR_LIST_COUNT, r->big), r->header.nudcid);
        if (fault.code != 0) {
            return fault;
        }
        uint32_t const host = crr_list_checksum(r->bytes, list, r->header.nudcid, CRR_BIG_ENDIAN);
        uint32_t const network = stored == host ? host : crr_list_checksum(r->bytes, list, r->header.nudcid, 1);
        fault = crr_list_checksum_fault(list, stored, host, network);
        if (fault.code != 0) {
            return fault;
        }
    }
    crr_segments const segments = {r->bytes,
                                   r->layout.entries,
                                   r->layout.dcids,
                                   r->entry,
                                   r->header.size,
                                   r->header.ssize,
                                   r->layout.segments,
                                   r->big,
                                   (options & CRR_SUB_DO) != 0,
                                   offsetof(crr_do_header, size)};
    fault = crr_segments_fault(&segments);
    if (fault.code == 0) {
        fault = crr_no_references_fault(&r->layout, options);
    }
    return fault.code != 0 ? fault : crr_references_fault(r->bytes, r->layout.trefs, r->layout.tail);
}

// Reads the header and computes the layout from what was read.
/*@ requires \valid(record) && \valid_read(bytes + (0 .. CRR_DO_HEADER_SIZE - 1));
    requires \separated(record, bytes + (0 .. CRR_DO_HEADER_SIZE - 1));
    assigns *record;
    ensures record->bytes == bytes && record->big == big;
    ensures crr_do_has_entries(record);
    ensures crr_do_is_laid_out(record); */
CRR_INLINE void crr_do_read_layout(crr_do* record, unsigned char const* bytes, int big) {
    record->bytes = bytes;
    record->big = big;
    record->header = crr_do_read_header(bytes, record->big);
    CRR_READ_ONCE();
    record->entry = crr_entry_of(record->header.dotype, crr_fingerprint_size(record->header.fptype));
    crr_do_counts const counts = {record->header.ntaskid,
                                  record->header.nfp,
                                  record->header.nudcid,
                                  record->header.nds,
                                  record->header.trefssize,
                                  record->header.bsize,
                                  record->header.dotype == CRR_DOTYPE_BLOOM};
    record->layout = crr_do_layout_of(&counts, record->entry.stride);
}

// Validates `size` received bytes, which may be any bytes, and opens them. Options: CRR_NETWORK_ORDER for a record in
// network order, CRR_NO_REFERENCES, CRR_SUB_DO.
// Returns: CRR_OK; CRR_INVALID for null or other option bits; CRR_CORRUPT_RECORD for an invalid record, with its first
// error in *fault.
// On failure: *record is unspecified, unless the result is CRR_INVALID.
/*@ requires \valid(record) && \valid(fault) && size <= 0x7fffffffffffffff;
    requires bytes == \null || \valid_read(bytes + (0 .. size - 1));
    requires \separated(record, fault) && \separated(record, bytes + (0 .. size - 1)) &&
      \separated(fault, bytes + (0 .. size - 1));
    assigns *record, *fault;
    ensures \result == CRR_OK ==> record->layout.total == size && record->bytes == bytes;
    ensures \result == CRR_OK ==> crr_do_is_open(record);
    ensures \result == CRR_OK || \result == CRR_INVALID || \result == CRR_CORRUPT_RECORD; */
CRR_INLINE int crr_do_open(crr_do* record, unsigned char const* bytes, uint64_t size, unsigned options,
                           crr_fault* fault) {
    *fault = crr_fault_of(0, 0, 0, 0);
    if (!bytes || (options & ~(unsigned)(CRR_NETWORK_ORDER | CRR_NO_REFERENCES | CRR_SUB_DO)) != 0) {
        return CRR_INVALID;
    }
    if (size < CRR_DO_SIZE) {
        *fault = crr_fault_of(CR_FINDING_DO_LENGTH, size, size, CRR_DO_SIZE);
        return CRR_CORRUPT_RECORD;
    }
    crr_do_read_layout(record, bytes, crr_is_big(options));
    crr_fault first = crr_do_header_fault(&record->header, record->layout.total, size, 0);
    if (first.code == 0) {
        //@ assert crr_do_is_open(record);
        first = crr_do_sections_fault(record, options);
    }
    if (first.code != 0) {
        *fault = first;
        return CRR_CORRUPT_RECORD;
    }
    //@ assert crr_do_is_open(record);
    return CRR_OK;
}

// One segment, as host values.
typedef struct crr_segment {
    unsigned char const* fingerprint;
    unsigned width;  // bytes of the fingerprint: 16 or 32
    uint32_t size;   // in bytes
    uint64_t offset; // in bytes, of DO types 3 and 5; 2^64 - 1 for the others
    uint64_t dcid;   // the container that holds the segment
} crr_segment;

// Segment `i`, below layout.segments.
/*@ requires crr_do_is_open(r);
    assigns \nothing;
    ensures \result.fingerprint == \null || \valid_read(\result.fingerprint + (0 .. \result.width - 1)); */
CRR_CONSTEXPR crr_segment crr_do_segment(crr_do const* r, uint32_t i) {
    crr_segment segment = {0, 0, 0, UINT64_MAX, 0};
    uint64_t const at = r->layout.entries + (uint64_t)i * r->entry.stride;
    if (i >= r->layout.segments || r->layout.dcids - r->layout.entries < r->entry.stride ||
        at > r->layout.dcids - r->entry.stride) {
        return segment;
    }
    segment.fingerprint = r->bytes + at;
    segment.width = r->entry.fingerprint;
    segment.size = r->entry.size_width == 4 ? crr_load32(r->bytes + at + r->entry.fingerprint, r->big)
                                            : crr_derived_size(i, r->layout.segments, r->header.size, r->header.ssize);
    if (r->entry.offset_width == 8) {
        segment.offset = crr_load64(r->bytes + at + r->entry.offset, r->big);
    } else if (r->entry.offset_width == 4) {
        segment.offset = crr_load32(r->bytes + at + r->entry.offset, r->big);
    }
    segment.dcid = crr_load64(r->bytes + r->layout.dcids + (uint64_t)CRR_DCID_SIZE * i, CRR_BIG_ENDIAN);
    return segment;
}

// An entry of the unique DCID list: a container and the object's bytes in it.
typedef struct crr_unique_dcid {
    uint64_t dcid, bytes;
} crr_unique_dcid;

// Entry `i` of the unique DCID list, below header.nudcid.
/*@ requires crr_do_is_open(r);
    assigns \nothing; */
CRR_CONSTEXPR crr_unique_dcid crr_do_unique_dcid(crr_do const* r, uint32_t i) {
    crr_unique_dcid entry = {0, 0};
    if (i < r->header.nudcid) {
        uint64_t const at = r->layout.udcids + CRR_LIST_HEAD + (uint64_t)CRR_LIST_ENTRY * i;
        entry.dcid = crr_load64(r->bytes + at, CRR_BIG_ENDIAN);
        entry.bytes = crr_load64(r->bytes + at + 8, CRR_BIG_ENDIAN);
    }
    return entry;
}

// Legacy task id `i`, below header.ntaskid, and legacy DSID `i`, below header.nds.
/*@ requires crr_do_is_open(r);
    assigns \nothing; */
CRR_CONSTEXPR uint64_t crr_do_taskid(crr_do const* r, uint32_t i) {
    return i < r->header.ntaskid
               ? crr_load64(r->bytes + r->layout.taskids + (uint64_t)CRR_TASKID_SIZE * i, CRR_BIG_ENDIAN)
               : 0;
}
/*@ requires crr_do_is_open(r);
    assigns \nothing; */
CRR_CONSTEXPR uint32_t crr_do_dsid(crr_do const* r, uint32_t i) {
    return i < r->header.nds ? crr_load32(r->bytes + r->layout.dsids + (uint64_t)CRR_DSID_SIZE * i, CRR_BIG_ENDIAN) : 0;
}

// The header.bsize bytes of the bitmap; null without a bitmap and for other DO types than 4.
/*@ requires crr_do_is_open(r);
    assigns \result \from r->bytes, r->header, r->layout;
    ensures \result == \null || \valid_read(\result + (0 .. r->header.bsize - 1)); */
CRR_CONSTEXPR unsigned char const* crr_do_bitmap(crr_do const* r) {
    return r->header.dotype == CRR_DOTYPE_BLOOM && r->header.bsize != 0
               ? r->bytes + r->layout.entries + CRR_BLOOM_LENGTH_SIZE
               : 0;
}

// Reads the typed reference at *at, and adds its size to *at. Start with an *at of 0.
// Returns: 1; 0 at the end.
/*@ requires crr_do_is_open(r) && \valid(at) && \valid(reference);
    requires \separated(at, reference, r, r->bytes + (0 .. r->layout.total - 1));
    assigns *at, *reference;
    ensures \result == 0 || (\result == 1 && *at > \old(*at)); */
CRR_INLINE int crr_do_next_reference(crr_do const* r, uint64_t* at, crr_reference* reference) {
    uint64_t const size = r->layout.tail - r->layout.trefs;
    if (*at >= size) {
        return 0;
    }
    unsigned const taken = crr_reference_decode(r->bytes + r->layout.trefs + *at, size - *at, reference);
    *at += taken;
    return taken != 0;
}

// --- Segment records ------------------------------------------------------------------------------------------------

// The fixed part as host values. Each member has the offset of its field in a record.
typedef struct crr_so_header {
    uint16_t type;      // 2
    uint16_t flags;     // 0 or 2
    uint32_t recsize;   // bytes of the whole record
    uint32_t word8;     // reserved
    uint32_t ntaskids;  // number of task ids
    uint32_t checktime; // seconds since the epoch
    uint32_t word20;    // reserved; kept by conversions, as it is stored
    uint64_t pathid;    // path, or the container of a segment in a container
    uint64_t fileid;    // file, or 0 for a segment in a container
    uint64_t size;      // bytes of the segment
    uint32_t crc;       // checksum supplied by the creator
    uint32_t nfp;       // number of fingerprints
    unsigned char key[CRR_SO_KEY_SIZE];
    unsigned char fptype;
    unsigned char cryptomode;
    unsigned char reserved; // zero
    uint16_t keyindex;      // kept by conversions, as it is stored
    uint16_t word94;        // reserved; kept by conversions, as it is stored
} crr_so_header;

#ifdef __cplusplus
static_assert(sizeof(crr_so_header) == CRR_SO_FIXED_SIZE, "a member with another offset than its field");
#else
_Static_assert(sizeof(crr_so_header) == CRR_SO_FIXED_SIZE, "a member with another offset than its field");
#endif

// Reads the fixed part of a segment record.
/*@ requires \valid_read(b + (0 .. CRR_SO_FIXED_SIZE - 1));
    assigns \nothing; */
CRR_CONSTEXPR crr_so_header crr_so_read_header(unsigned char const* b, int big) {
    crr_so_header h = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, {0}, 0, 0, 0, 0, 0};
    h.type = crr_load16(b + offsetof(crr_so_header, type), big);
    h.flags = crr_load16(b + offsetof(crr_so_header, flags), big);
    h.recsize = crr_load32(b + offsetof(crr_so_header, recsize), big);
    h.word8 = crr_load32(b + offsetof(crr_so_header, word8), big);
    h.ntaskids = crr_load32(b + offsetof(crr_so_header, ntaskids), big);
    h.checktime = crr_load32(b + offsetof(crr_so_header, checktime), big);
    h.word20 = crr_load32(b + offsetof(crr_so_header, word20), CRR_BIG_ENDIAN);
    h.pathid = crr_load64(b + offsetof(crr_so_header, pathid), big);
    h.fileid = crr_load64(b + offsetof(crr_so_header, fileid), big);
    h.size = crr_load64(b + offsetof(crr_so_header, size), big);
    h.crc = crr_load32(b + offsetof(crr_so_header, crc), big);
    h.nfp = crr_load32(b + offsetof(crr_so_header, nfp), big);
    /*@ loop invariant 0 <= i <= CRR_SO_KEY_SIZE;
        loop assigns i, h.key[0 .. CRR_SO_KEY_SIZE - 1];
        loop variant CRR_SO_KEY_SIZE - i; */
    for (unsigned i = 0; i < CRR_SO_KEY_SIZE; ++i) {
        h.key[i] = b[offsetof(crr_so_header, key) + i];
    }
    h.fptype = b[offsetof(crr_so_header, fptype)];
    h.cryptomode = b[offsetof(crr_so_header, cryptomode)];
    h.reserved = b[offsetof(crr_so_header, reserved)];
    h.keyindex = crr_load16(b + offsetof(crr_so_header, keyindex), CRR_BIG_ENDIAN);
    h.word94 = crr_load16(b + offsetof(crr_so_header, word94), CRR_BIG_ENDIAN);
    return h;
}

// Bytes of a segment record with these counts.
/*@ requires width == 16 || width == 32;
    assigns \nothing;
    ensures \result == CRR_SO_SIZE + CRR_TASKID_SIZE * ntaskids + width * nfp && \result < 0x8000000000; */
CRR_CONSTEXPR uint64_t crr_so_size(uint32_t ntaskids, uint32_t nfp, unsigned width) {
    return CRR_SO_SIZE + (uint64_t)CRR_TASKID_SIZE * ntaskids + (uint64_t)width * nfp;
}

// The first error of a fixed part with a code above `after`, in a record of `size` bytes whose counts give `total`
// bytes. The fingerprint type is checked last, although it gives the width of the fingerprints: an unknown one counts
// as 16 bytes.
/*@ requires \valid_read(h);
    assigns \nothing;
    ensures \result.code == 0 ==> after < CR_FINDING_SO_TYPE ==> total == size;
    ensures \result.code == 0 || after < \result.code <= CR_FINDING_SO_FPTYPE; */
CRR_CONSTEXPR crr_fault crr_so_header_fault(crr_so_header const* h, uint64_t total, uint64_t size, unsigned options,
                                            int after) {
    if (after < CR_FINDING_SO_TYPE && h->type != CRR_SO_TYPE) {
        return crr_fault_of(CR_FINDING_SO_TYPE, offsetof(crr_so_header, type), h->type, CRR_SO_TYPE);
    }
    if (after < CR_FINDING_SO_RECSIZE && h->recsize != size) {
        return crr_fault_of(CR_FINDING_SO_RECSIZE, offsetof(crr_so_header, recsize), h->recsize, size);
    }
    if (after < CR_FINDING_SO_CALCULATED && total != size) {
        return crr_fault_of(CR_FINDING_SO_CALCULATED, offsetof(crr_so_header, nfp), total, size);
    }
    if (after < CR_FINDING_SO_TASKIDS && (options & CRR_NO_TASKIDS) != 0 && h->ntaskids != 0) {
        return crr_fault_of(CR_FINDING_SO_TASKIDS, offsetof(crr_so_header, ntaskids), h->ntaskids, 0);
    }
    if (after < CR_FINDING_SO_FPTYPE && h->fptype > CRR_FPTYPE_LAST) {
        return crr_fault_of(CR_FINDING_SO_FPTYPE, offsetof(crr_so_header, fptype), h->fptype, CRR_FPTYPE_LAST);
    }
    return crr_fault_of(0, 0, 0, 0);
}

// An opened segment record. The members are for reading.
//
// Lifetime: that of the bytes.
typedef struct crr_so {
    unsigned char const* bytes;
    crr_so_header header; // host values
    unsigned width;       // bytes of a fingerprint: 16 or 32
    int big;              // byte order of the bytes
} crr_so;

/*@ predicate crr_so_is_open(crr_so* r) =
      \valid_read(r) && (r->width == 16 || r->width == 32) &&
      \valid_read(r->bytes + (0 .. CRR_SO_SIZE + CRR_TASKID_SIZE * r->header.ntaskids + r->width * r->header.nfp - 1));
 */

// As crr_do_open, for a segment record. Options: CRR_NETWORK_ORDER, CRR_NO_TASKIDS.
/*@ requires \valid(record) && \valid(fault) && size <= 0x7fffffffffffffff;
    requires bytes == \null || \valid_read(bytes + (0 .. size - 1));
    requires \separated(record, fault) && \separated(record, bytes + (0 .. size - 1)) &&
      \separated(fault, bytes + (0 .. size - 1));
    assigns *record, *fault;
    ensures \result == CRR_OK ==> crr_so_is_open(record) && record->bytes == bytes;
    ensures \result == CRR_OK || \result == CRR_INVALID || \result == CRR_CORRUPT_RECORD; */
CRR_INLINE int crr_so_open(crr_so* record, unsigned char const* bytes, uint64_t size, unsigned options,
                           crr_fault* fault) {
    *fault = crr_fault_of(0, 0, 0, 0);
    if (!bytes || (options & ~(unsigned)(CRR_NETWORK_ORDER | CRR_NO_TASKIDS)) != 0) {
        return CRR_INVALID;
    }
    if (size < CRR_SO_FIXED_SIZE) {
        *fault = crr_fault_of(CR_FINDING_SO_LENGTH, size, size, CRR_SO_FIXED_SIZE);
        return CRR_CORRUPT_RECORD;
    }
    record->bytes = bytes;
    record->big = crr_is_big(options);
    record->header = crr_so_read_header(bytes, record->big);
    CRR_READ_ONCE();
    record->width = crr_fingerprint_size(record->header.fptype);
    uint64_t const total = crr_so_size(record->header.ntaskids, record->header.nfp, record->width);
    *fault = crr_so_header_fault(&record->header, total, size, options, 0);
    return fault->code == 0 ? CRR_OK : CRR_CORRUPT_RECORD;
}

// Task id `i`, below header.ntaskids.
/*@ requires crr_so_is_open(r);
    assigns \nothing; */
CRR_CONSTEXPR uint64_t crr_so_taskid(crr_so const* r, uint32_t i) {
    return i < r->header.ntaskids ? crr_load64(r->bytes + CRR_SO_FIXED_SIZE + (uint64_t)CRR_TASKID_SIZE * i, r->big)
                                  : 0;
}

// The `width` bytes of fingerprint `i`, below header.nfp; null for another index.
/*@ requires crr_so_is_open(r);
    assigns \result \from r->bytes, r->header, r->width;
    ensures \result == \null || \valid_read(\result + (0 .. r->width - 1)); */
CRR_CONSTEXPR unsigned char const* crr_so_fingerprint(crr_so const* r, uint32_t i) {
    return i < r->header.nfp
               ? r->bytes + CRR_SO_FIXED_SIZE + (uint64_t)CRR_TASKID_SIZE * r->header.ntaskids + (uint64_t)r->width * i
               : 0;
}

#endif
