// Validation of buffers, and findings.

#pragma once

#include "buffer.h"
#include "errors.h"

#include <cstddef>
#include <span>

namespace crrecord::python {

enum class Expected { ByProbe, DataObject, Segment };

// The status of a record and up to `limit` findings.
struct Diagnosis {
    cr_status_t status;
    std::vector<Found> findings;
};

struct DiagnosisOptions {
    Expected expected = Expected::ByProbe;
    bool subDO = false;
    bool allowReferences = true;
    std::size_t limit = 100;
};

Diagnosis Diagnose(Slice const& bytes, DiagnosisOptions const& options);
// The same with or without the GIL.
Diagnosis DiagnoseBytes(std::span<unsigned char const> bytes, DiagnosisOptions const& options);

// Raises crrecord.Error with the findings unless the bytes are one valid record.
void RequireGood(Slice const& bytes, DiagnosisOptions const& options);

struct FormOptions {
    unsigned int dotype;
    unsigned char fptype;
    bool checksum = false;
    bool subDO = false;
    std::size_t limit = 100;
};

// Raises crrecord.Error for an exchange form that the library refused, with the findings.
[[noreturn]] void RaiseForForm(Cr_ErrnoException const& error, Slice const& form, FormOptions const& options);

} // namespace crrecord::python
