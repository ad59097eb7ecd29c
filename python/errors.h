// Failures: the library's statuses and findings as crrecord.Error.

#pragma once

#include "bindings.h"

#include <crrecord/finding.h>
#include <crrecord/status.h>

#include <string>
#include <vector>

namespace crrecord::python {

// A finding that outlives the walk which told it.
struct Found {
    int code;
    int severity;
    unsigned long offset, found, expected;
    std::string field, message;
};

py::list FindingsOf(std::vector<Found> const& findings);

// Raises crrecord.Error; null stands for the status's own text.
[[noreturn]] void Raise(cr_status_t status, char const* text = nullptr, std::vector<Found> const& findings = {});

// For operations that return their failures, having logged the reason or not.
void Require(cr_status_t status);

} // namespace crrecord::python
