#include "support/validate/finding_reporter.h"

#include "status/trace.h"
#include "support/validate/finding_table.h"

#include <cassert>
#include <cstdio>

char const* CRFindingName(int code) noexcept {
    switch (code) {
    case CR_FINDING_NOTE: return "note";
    case CR_FINDING_ERROR: return "error";
    default: break;
    }
    crrecord::FindingRow const* const row = crrecord::FindFinding(code);
    return row ? row->name : "unknown";
}

namespace crrecord {

namespace {

bool TraceError(cr_finding_t const* error, void*) {
    __TraceA("%s", error->message);
    return false;
}

} // namespace

FindingReporter FindingReporter::ForValidator() noexcept {
    return ErrorsOnly(TraceOn() ? TraceError : nullptr, nullptr);
}

void FindingReporter::Report(Finding const& finding, char const* format, ...) noexcept {
    if (stopped_) {
        return;
    }
    FindingRow const* const row = FindFinding(finding.code);
    assert(row && (row->severity == CR_FINDING_ERROR || NotesDue()));
    failed_ = failed_ || row->severity == CR_FINDING_ERROR;
    if (!callback_) {
        stopped_ = true;
        return;
    }
    char message[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    cr_finding_t const reported{sizeof reported, finding.code,     row->severity, finding.offset,
                                finding.found,   finding.expected, finding.field, message};
    stopped_ = !callback_(&reported, context_);
}

bool FirstError::Keep(cr_finding_t const* error, void* firstError) {
    auto* const kept = static_cast<FirstError*>(firstError);
    kept->exception_ = Cr_ErrnoException(CR_STATUS_CORRUPT_RECORD, error->message, nullptr);
    kept->any_ = true;
    return false;
}

} // namespace crrecord
