// Findings: what a diagnosing pass (DORecordDiagnose, DORecordSerializedDiagnose, SegmentRecordDiagnose) reports of a
// buffer. docs/findings.md has a page for each.
//
// A pass reports errors in a fixed order: all but those that an earlier error hides (docs/findings.md). It reports
// notes only for a buffer without errors.

#pragma once

#include <crrecord/export.h>

// Severities. An error: the record must not be used. A note: the record may be used, but this library would have
// written other bytes.
inline constexpr int CR_FINDING_NOTE = 0;
inline constexpr int CR_FINDING_ERROR = 1;

// Codes. The numbers and the names that CRFindingName returns never change and are never used again, since users store
// them. A new version may add codes.
enum cr_finding_code_t : int {
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

// Returns: the stable short name of a code, such as "so-recsize"; of a severity "note" or "error", whose numbers are no
// codes; "unknown" for any other number. Never null.
// Lifetime: the name lives as long as the process.
CRRECORD_API char const* CRFindingName(int code) noexcept;

// One finding.
//
// Lifetime: the pointers are valid during the callback.
struct cr_finding_t {
    // sizeof(cr_finding_t) in the library. New members are added at the end only: check it before you read one.
    unsigned int struct_size;
    // One of cr_finding_code_t, and CR_FINDING_ERROR or CR_FINDING_NOTE.
    int code;
    int severity;
    // Offset of the first byte concerned, in bytes from the start of the buffer.
    unsigned long offset;
    // Host values. If several values are allowed, `expected` is a limit or the nearest of them.
    unsigned long found, expected;
    // Path of the field, such as "recsize" or "segments[2].size".
    char const* field;
    // One line without a line end, for people; its words may change.
    char const* message;
};

// Receives each finding; `context` is the caller's. It must not throw: an exception that leaves it ends the process. It
// must not change the bytes that are checked.
// Returns: true to go on, false to end the pass.
typedef bool (*cr_finding_callback_t)(cr_finding_t const* finding, void* context);
