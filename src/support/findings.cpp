// Names of the findings, and the reporter.

#include "support/findings.h"

#include <cstdio>

char const* CRFindingName(int code) noexcept {
    switch (code) {
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
    default: return "unknown";
    }
}

namespace crrecord {

bool FindingReporter::Error(Finding const& finding, char const* format, ...) noexcept {
    failed_ = true;
    va_list arguments;
    va_start(arguments, format);
    bool const goOn = Hand(CR_FINDING_ERROR, finding, format, arguments);
    va_end(arguments);
    return goOn;
}

bool FindingReporter::Note(Finding const& finding, char const* format, ...) noexcept {
    va_list arguments;
    va_start(arguments, format);
    bool const goOn = Hand(CR_FINDING_NOTE, finding, format, arguments);
    va_end(arguments);
    return goOn;
}

bool FindingReporter::Hand(int severity, Finding const& finding, char const* format, va_list arguments) noexcept {
    if (!callback_) {
        return severity == CR_FINDING_NOTE;
    }
    char message[256];
    std::vsnprintf(message, sizeof message, format, arguments);
    cr_finding_t const handed{sizeof handed, finding.code,     severity,      finding.offset,
                              finding.found, finding.expected, finding.field, message};
    return callback_(&handed, context_);
}

bool TraceFirstError(cr_finding_t const* finding, void*) {
    if (finding->severity == CR_FINDING_ERROR) {
        __TraceA("%s", finding->message);
        return false;
    }
    return true;
}

} // namespace crrecord
