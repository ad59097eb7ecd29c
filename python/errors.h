// Statuses and findings of the library as crrecord.Error.

#pragma once

#include "bindings.h"

#include <crrecord/finding.h>
#include <crrecord/status.h>

#include <string>
#include <vector>

namespace crrecord::python {

// A copy of a finding. The library's finding is valid during the callback only.
struct Found {
    int code;
    int severity;
    unsigned long offset, found, expected;
    std::string field, message;
};

py::list FindingsOf(std::vector<Found> const& findings);

// Raises crrecord.Error. A null or empty `text` means the line that the library logged during the present call of
// Python, or else the text of the status.
[[noreturn]] void Raise(cr_status_t status, char const* text = nullptr, std::vector<Found> const& findings = {});

// Raises crrecord.Error unless the status is CR_STATUS_OK.
void Require(cr_status_t status);

// Starts a call of Python: lines logged before are not reasons of its failures.
void ForgetLog() noexcept;

// For another module of the package, instead of BindErrors: its errors, and the log of the library that it contains,
// are those of `_crrecord`.
void UseErrors();

// Sets the Python exception of the C++ exception that is being handled. Lets pass the one of the C library that ends a
// thread; functions that Python calls are therefore not noexcept.
void SetCurrentException();

} // namespace crrecord::python
