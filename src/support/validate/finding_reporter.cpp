// Names of the findings, and the reporter.

#include "support/validate/finding_reporter.h"

#include "status/trace.h"

#include <cassert>
#include <cstdio>

char const* CRFindingName(int code) noexcept {
    switch (code) {
    case CR_FINDING_NOTE: return "note";
    case CR_FINDING_ERROR: return "error";
    case CR_FINDING_SO_LENGTH: return "so-length";
    case CR_FINDING_SO_TYPE: return "so-type";
    case CR_FINDING_SO_RECSIZE: return "so-recsize";
    case CR_FINDING_SO_CALCULATED: return "so-calculated";
    case CR_FINDING_SO_TASKIDS: return "so-taskids";
    case CR_FINDING_SO_FPTYPE: return "so-fptype";
    case CR_FINDING_SO_FLAGS: return "so-flags";
    case CR_FINDING_SO_DCID: return "so-dcid";
    case CR_FINDING_SO_RESERVED: return "so-reserved";
    case CR_FINDING_SO_SPARE: return "so-spare";
    case CR_FINDING_DO_LENGTH: return "do-length";
    case CR_FINDING_DO_TYPE: return "do-type";
    case CR_FINDING_DO_RECSIZE: return "do-recsize";
    case CR_FINDING_DO_FLAGS: return "do-flags";
    case CR_FINDING_DO_DOTYPE: return "do-dotype";
    case CR_FINDING_DO_FPTYPE: return "do-fptype";
    case CR_FINDING_DO_BLOOM_SEGMENTS: return "do-bloom-segments";
    case CR_FINDING_DO_CALCULATED: return "do-calculated";
    case CR_FINDING_DO_LIST_COUNT: return "do-list-count";
    case CR_FINDING_DO_LIST_CHECKSUM: return "do-list-checksum";
    case CR_FINDING_SEGMENT_PRODUCT: return "segment-product";
    case CR_FINDING_SEGMENT_SUM: return "segment-sum";
    case CR_FINDING_SEGMENT_SIZE: return "segment-size";
    case CR_FINDING_SEGMENT_OFFSET: return "segment-offset";
    case CR_FINDING_SEGMENT_OVERLAP: return "segment-overlap";
    case CR_FINDING_SEGMENT_END: return "segment-end";
    case CR_FINDING_DO_REFERENCES: return "do-references";
    case CR_FINDING_DO_REFERENCE: return "do-reference";
    case CR_FINDING_DO_BLOOM_LENGTH: return "do-bloom-length";
    case CR_FINDING_DO_DCID: return "do-dcid";
    case CR_FINDING_DO_LEGACY: return "do-legacy";
    case CR_FINDING_DO_LIST_ORDER: return "do-list-order";
    case CR_FINDING_DO_LIST_UNSORTED: return "do-list-unsorted";
    case CR_FINDING_DO_REFERENCE_ORDER: return "do-reference-order";
    case CR_FINDING_DO_NON_ZERO: return "do-non-zero";
    case CR_FINDING_DO_BSIZE: return "do-bsize";
    case CR_FINDING_FORM_LENGTH: return "form-length";
    case CR_FINDING_FORM_ZERO: return "form-zero";
    case CR_FINDING_FORM_BLOOM_SEGMENTS: return "form-bloom-segments";
    case CR_FINDING_FORM_CALCULATED: return "form-calculated";
    case CR_FINDING_FORM_TOO_LARGE: return "form-too-large";
    case CR_FINDING_FORM_FINGERPRINT: return "form-fingerprint";
    case CR_FINDING_FORM_LIST_CHECKSUM: return "form-list-checksum";
    case CR_FINDING_FORM_CHECKSUM: return "form-checksum";
    default: return "unknown";
    }
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

bool FindingReporter::Error(Finding const& finding, char const* format, ...) noexcept {
    failed_ = true;
    va_list arguments;
    va_start(arguments, format);
    bool const goOn = Emit(CR_FINDING_ERROR, finding, format, arguments);
    va_end(arguments);
    return goOn;
}

bool FindingReporter::Note(Finding const& finding, char const* format, ...) noexcept {
    assert(wantsNotes_);
    va_list arguments;
    va_start(arguments, format);
    bool const goOn = Emit(CR_FINDING_NOTE, finding, format, arguments);
    va_end(arguments);
    return goOn;
}

bool FindingReporter::Emit(int severity, Finding const& finding, char const* format, va_list arguments) noexcept {
    if (!callback_) {
        return false;
    }
    char message[256];
    std::vsnprintf(message, sizeof message, format, arguments);
    cr_finding_t const handed{sizeof handed, finding.code,     severity,      finding.offset,
                              finding.found, finding.expected, finding.field, message};
    return callback_(&handed, context_);
}

bool FirstError::Listen(cr_finding_t const* error, void* firstError) {
    static_cast<FirstError*>(firstError)->exception_ =
        Cr_ErrnoException(CR_STATUS_CORRUPT_RECORD, error->message, nullptr);
    return false;
}

} // namespace crrecord
