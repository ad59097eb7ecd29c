// Findings: what a diagnosing pass says of a buffer, and the codes that it says it with.

#pragma once

#include <crrecord/export.h>

// Severity of a note: the record is usable, but not what this library would have written.
inline constexpr int CR_FINDING_NOTE = 0;
// Severity of an error: the record may not be used.
inline constexpr int CR_FINDING_ERROR = 1;

// What was found. The numbers and the names that CRFindingName gives are stored by users and never change.
enum cr_finding_code_t : int {
    // Segment records: errors, in the order in which they are looked for.
    CR_FINDING_SO_LENGTH = 101,     // fewer bytes than the fixed part of a segment record
    CR_FINDING_SO_TYPE = 102,       // the record type is not that of a segment record
    CR_FINDING_SO_RECSIZE = 103,    // the record size is not the number of bytes given
    CR_FINDING_SO_CALCULATED = 104, // the counts don't add up to the number of bytes given
    CR_FINDING_SO_TASKIDS = 105,    // task ids where none are allowed
    CR_FINDING_SO_FPTYPE = 106,     // an unknown fingerprint type
    // Segment records: notes.
    CR_FINDING_SO_FLAGS = 151,    // flags other than 0 and 2
    CR_FINDING_SO_DCID = 152,     // a reserved container id: 0, or 2 to 63
    CR_FINDING_SO_RESERVED = 153, // the reserved byte is not zero
    CR_FINDING_SO_SPARE = 154,    // the spare slot at the record's end is not zero

    // DO records: errors, in the order in which they are looked for.
    CR_FINDING_DO_LENGTH = 201,         // fewer bytes than the smallest record
    CR_FINDING_DO_TYPE = 202,           // the record type is not that of a DO record
    CR_FINDING_DO_RECSIZE = 203,        // the record size is not the number of bytes given
    CR_FINDING_DO_FLAGS = 204,          // flags with an unknown bit
    CR_FINDING_DO_DOTYPE = 205,         // an unknown DO type
    CR_FINDING_DO_FPTYPE = 206,         // an unknown fingerprint type
    CR_FINDING_DO_BLOOM_SEGMENTS = 207, // a bloom record that claims segments
    CR_FINDING_DO_CALCULATED = 208,     // the counts don't add up to the number of bytes given
    CR_FINDING_DO_LIST_COUNT = 209,     // the unique DCID list's count is not the header's
    CR_FINDING_DO_LIST_CHECKSUM = 210,  // the unique DCID list doesn't match its checksum
    CR_FINDING_SEGMENT_PRODUCT = 211,   // segment size times segments is less than the object
    CR_FINDING_SEGMENT_SUM = 212,       // the sizes don't add up to the object
    CR_FINDING_SEGMENT_SIZE = 213,      // a segment from 2 GiB on
    CR_FINDING_SEGMENT_OFFSET = 214,    // an offset from 8192 PiB on
    CR_FINDING_SEGMENT_OVERLAP = 215,   // a segment starts before the one in front of it ends
    CR_FINDING_SEGMENT_END = 216,       // the last segment ends behind the object
    CR_FINDING_DO_REFERENCES = 217,     // references where none are allowed
    CR_FINDING_DO_REFERENCE = 218,      // bytes in the reference section that are no reference
    // DO records: notes.
    CR_FINDING_DO_BLOOM_LENGTH = 251,    // the bloom length word is unlike bsize, or in the other order
    CR_FINDING_DO_DCID = 252,            // a segment in a reserved container, below 64
    CR_FINDING_DO_LEGACY = 253,          // legacy task-id or DSID arrays
    CR_FINDING_DO_LIST_ORDER = 254,      // the unique DCID list was summed in network order
    CR_FINDING_DO_LIST_UNSORTED = 255,   // the unique DCID list is not ascending
    CR_FINDING_DO_REFERENCE_ORDER = 256, // references unsorted or repeated
    CR_FINDING_DO_NON_ZERO = 257,        // a reserved byte or one behind the last section is not zero
    // Exchange forms of DO records: errors. Segments are judged by the codes from 211 on.
    CR_FINDING_FORM_LENGTH = 301,         // fewer bytes than the smallest form
    CR_FINDING_FORM_ZERO = 302,           // the word at 24, the separator or the end is not zero
    CR_FINDING_FORM_BLOOM_SEGMENTS = 303, // a bloom form that claims segments
    CR_FINDING_FORM_CALCULATED = 304,     // the counts don't add up to the number of bytes given
    CR_FINDING_FORM_TOO_LARGE = 305,      // the record would be beyond 4 GiB - 1
    CR_FINDING_FORM_FINGERPRINT = 306,    // a text that is not a fingerprint's
    CR_FINDING_FORM_LIST_CHECKSUM = 307,  // the unique DCID list doesn't match its checksum
    CR_FINDING_FORM_CHECKSUM = 308,       // the body doesn't match the checksum
};

// The stable short name of a code, such as "so-recsize"; "unknown" for a number that is none.
CRRECORD_API char const* CRFindingName(int code) noexcept;

struct cr_finding_t {
    unsigned int struct_size;      // sizeof(cr_finding_t) of the library that fills it; grows at its end only
    int code;                      // one of cr_finding_code_t
    int severity;                  // CR_FINDING_ERROR or CR_FINDING_NOTE
    unsigned long offset;          // of the first byte in question, from the start of the buffer
    unsigned long found, expected; // host values; a limit or the nearest allowed value where several are allowed
    char const* field;             // path of the field, such as "recsize"; valid during the callback
    char const* message;           // one line without a line end; valid during the callback
};

// Is called with each finding in turn; false stops the walk. It must not change the bytes that are checked.
typedef bool (*cr_finding_callback_t)(cr_finding_t const* finding, void* context);
