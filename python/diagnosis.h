// Validation and findings over bytes.

#pragma once

#include "buffer.h"
#include "errors.h"

#include <cstddef>

namespace crrecord::python {

enum class Expected { ByProbe, DataObject, Segment };

// What the walk says of a record, up to `limit` findings.
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

// Raises crrecord.Error with the findings unless the bytes are a good record.
void RequireGood(Slice const& bytes, DiagnosisOptions const& options);

} // namespace crrecord::python
