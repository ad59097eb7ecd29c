// Reporting of findings: one reporter for each pass over a buffer.

#pragma once

#include <crrecord/finding.h>
#include <crrecord/status.h>

#include <cstdint>

namespace crrecord {

// A finding without its severity, which finding_table.h has, and without its message.
struct Finding {
    int code;
    char const* field;
    std::uint64_t offset;
    std::uint64_t found;
    std::uint64_t expected;
};

// A finding in a field of a table of fields.
template <class Field>
constexpr Finding FindingAt(int code, Field const& field, std::uint64_t found, std::uint64_t expected) noexcept {
    return {code, field.name, field.offset, found, expected};
}

// Keeps the status of one pass and calls back for each finding until the pass has stopped.
class FindingReporter {
public:
    // If `callback` is null, the pass stops at its first error.
    FindingReporter(cr_finding_callback_t callback, void* context) noexcept
        : FindingReporter(callback, context, callback != nullptr) {}
    // For a callback that ignores notes.
    static FindingReporter ErrorsOnly(cr_finding_callback_t callback, void* context) noexcept {
        return FindingReporter(callback, context, false);
    }
    // Stops the pass at its first error, which is written to the trace if tracing is on.
    static FindingReporter ForValidator() noexcept;

    // Reports a finding, unless the pass has stopped. Stops the pass if the callback returns false. Notes must be due.
    void Report(Finding const& finding, char const* format, ...) noexcept __attribute__((format(printf, 3, 4)));
    // For a finding after which no other check is possible.
    void Stop() noexcept { stopped_ = true; }

    // True: later findings are not reported, so their checks can be skipped.
    bool Stopped() const noexcept { return stopped_; }
    // False: no callback takes notes, or there was an error. Their checks are skipped.
    bool NotesDue() const noexcept { return wantsNotes_ && !failed_; }

    cr_status_t Status() const noexcept { return failed_ ? CR_STATUS_CORRUPT_RECORD : CR_STATUS_OK; }

private:
    FindingReporter(cr_finding_callback_t callback, void* context, bool wantsNotes) noexcept
        : callback_(callback), context_(context), wantsNotes_(wantsNotes) {}

    cr_finding_callback_t callback_;
    void* context_;
    bool wantsNotes_;
    bool failed_ = false;
    bool stopped_ = false;
};

// Keeps the first error of a pass for an exception.
class FirstError {
public:
    // The reporter for the pass. It stops at the first error.
    FindingReporter Reporter() noexcept { return FindingReporter::ErrorsOnly(Keep, this); }

    // Throws: CR_STATUS_CORRUPT_RECORD with the error's message, if there was an error.
    void ThrowIfAny() const {
        if (any_) {
            throw exception_;
        }
    }

private:
    static bool Keep(cr_finding_t const* error, void* firstError);

    Cr_ErrnoException exception_{CR_STATUS_CORRUPT_RECORD};
    bool any_ = false;
};

} // namespace crrecord
