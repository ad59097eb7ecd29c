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

// Is given each finding in turn; false stops the walk.
typedef bool (*cr_finding_callback_t)(cr_finding_t const* finding, void* context);
