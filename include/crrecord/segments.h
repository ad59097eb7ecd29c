// Segments and unique DCID list of a DO record as ranges.
//
// DORecordView and DORecord::Segments make them. They read either order and give host values.

#pragma once

#include <crrecord/DORecordHeader.h>
#include <crrecord/fingerprint.h>
#include <crrecord/record_range.h>

// One segment, as host values.
struct DOSegment {
    crfp_digest_t fingerprint; // the second half is zero for 16-byte fingerprints
    unsigned int size;         // in bytes, derived ones cut to 32 bits; 0xffffffff for DO types without sizes
    unsigned long offset;      // in bytes, of DO types 3 and 5; 2^64 - 1 for the others
    unsigned long dcid;        // the container that holds the segment
};

// One entry of the unique DCID list, as host values on the kind of machine that built the record.
struct DOUniqueDCID {
    unsigned long dcid;
    unsigned long bytes; // number of the object's bytes in that container
};

// What a range reads from: the place and form of the elements in a record. The members are not for callers.
//
// Preconditions: Of takes a record in either order whose counts are known to fit its buffer, as after validation; Read
// takes an index below count.
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

// As DOSegmentSource, for the entries of the unique DCID list.
struct DOUniqueDCIDSource {
    typedef DOUniqueDCID value_type;

    CRRECORD_API static DOUniqueDCIDSource Of(DORecordHeader const* header) noexcept;
    CRRECORD_API DOUniqueDCID Read(unsigned int i) const noexcept;

    unsigned char const* list;
    unsigned int count;
};

// The ranges that records and views return.
typedef cr_record_range<DOSegmentSource> DOSegmentRange;
typedef cr_record_range<DOUniqueDCIDSource> DOUniqueDCIDRange;
