// The segments and the unique DCIDs of a DO record as ranges.

#pragma once

#include <crrecord/DORecordHeader.h>
#include <crrecord/fingerprint.h>
#include <crrecord/record_range.h>

// What a record says of one segment, as host values.
struct DOSegment {
    crfp_digest_t fingerprint; // 16-byte fingerprints have a zero second half
    unsigned int size;         // bytes; 0xffffffff where the DO type has none
    unsigned long offset;      // as stored, of DO types 3 and 5; 0xffffffffffffffff for the others
    unsigned long dcid;        // container that holds the segment
};

// One entry of the unique DCID list.
struct DOUniqueDCID {
    unsigned long dcid;
    unsigned long bytes; // of the object, in that container
};

// Where a range reads from: a record in either order whose counts are known to lie inside its buffer.
struct DOSegmentSource {
    typedef DOSegment value_type;

    CRRECORD_API static DOSegmentSource Of(DORecordHeader const* header) noexcept;
    CRRECORD_API DOSegment Read(unsigned int i) const noexcept;

    unsigned char const* entries;
    unsigned char const* dcids;
    unsigned long objectSize;
    unsigned long ssize;
    unsigned int count;
    unsigned char stride;
    unsigned char fingerprint;
    unsigned char dotype;
    bool networkOrder;
};

struct DOUniqueDCIDSource {
    typedef DOUniqueDCID value_type;

    CRRECORD_API static DOUniqueDCIDSource Of(DORecordHeader const* header) noexcept;
    CRRECORD_API DOUniqueDCID Read(unsigned int i) const noexcept;

    unsigned char const* list;
    unsigned int count;
};

typedef cr_record_range<DOSegmentSource> DOSegmentRange;
typedef cr_record_range<DOUniqueDCIDSource> DOUniqueDCIDRange;
