// Where the validators' walks report to.

#pragma once

#include <crrecord/finding.h>
#include <crrecord/status.h>

#include <cstdint>

namespace crrecord {

// A finding before its message is made.
struct Finding {
    int code;
    char const* field;
    std::uint64_t offset;
    std::uint64_t found;
    std::uint64_t expected;
};

// Keeps the status of one walk and passes each finding to a callback.
class FindingReporter {
public:
    // `callback` may be null: the walk ends at its first error.
    FindingReporter(cr_finding_callback_t callback, void* context) noexcept
        : FindingReporter(callback, context, callback != nullptr) {}
    // For a callback that ignores notes.
    static FindingReporter ErrorsOnly(cr_finding_callback_t callback, void* context) noexcept {
        return FindingReporter(callback, context, false);
    }
    // Ends the walk at its first error, which is written to the trace if tracing is on.
    static FindingReporter ForValidator() noexcept;

    // Both return whether the walk goes on. Call Note only if WantsNotes().
    bool Error(Finding const& finding, char const* format, ...) noexcept __attribute__((format(printf, 3, 4)));
    bool Note(Finding const& finding, char const* format, ...) noexcept __attribute__((format(printf, 3, 4)));

    // False: no callback takes notes, so their checks are skipped.
    bool WantsNotes() const noexcept { return wantsNotes_; }

    cr_status_t Status() const noexcept { return failed_ ? CR_STATUS_CORRUPT_RECORD : CR_STATUS_OK; }

private:
    FindingReporter(cr_finding_callback_t callback, void* context, bool wantsNotes) noexcept
        : callback_(callback), context_(context), wantsNotes_(wantsNotes) {}
    bool Emit(int severity, Finding const& finding, char const* format, va_list arguments) noexcept;

    cr_finding_callback_t callback_;
    void* context_;
    bool wantsNotes_;
    bool failed_ = false;
};

// Keeps the first error for an exception. Listen is a callback for ErrorsOnly.
class FirstError {
public:
    static bool Listen(cr_finding_t const* error, void* firstError);

    [[noreturn]] void Throw() const { throw exception_; }

private:
    Cr_ErrnoException exception_{CR_STATUS_CORRUPT_RECORD};
};

} // namespace crrecord
