// Findings: what a diagnosing pass (DORecordDiagnose, DORecordSerializedDiagnose, SegmentRecordDiagnose) reports of a
// buffer. docs/findings.md has a page for each.
//
// A pass reports errors in a fixed order: all but those that an earlier error hides (docs/findings.md). It reports
// notes only for a buffer without errors.

#pragma once

#include <crrecord/export.h>
#include <crrecord/reader.h> // cr_finding_code_t, the codes

// Severities. An error: the record must not be used. A note: the record may be used, but this library would have
// written other bytes.
inline constexpr int CR_FINDING_NOTE = 0;
inline constexpr int CR_FINDING_ERROR = 1;

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
