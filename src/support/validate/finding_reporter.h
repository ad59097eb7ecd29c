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

// Collects the verdict of one walk and hands each finding on. The message is formatted only where somebody listens.
class FindingReporter {
public:
    // `callback` may be null: nobody listens, and the walk ends at its first error.
    FindingReporter(cr_finding_callback_t callback, void* context) noexcept
        : FindingReporter(callback, context, callback != nullptr) {}
    // `wantsNotes` false: for a listener who makes nothing of them.
    FindingReporter(cr_finding_callback_t callback, void* context, bool wantsNotes) noexcept
        : callback_(callback), context_(context), wantsNotes_(wantsNotes) {}

    // Both return whether the walk goes on.
    bool Error(Finding const& finding, char const* format, ...) noexcept __attribute__((format(printf, 3, 4)));
    bool Note(Finding const& finding, char const* format, ...) noexcept __attribute__((format(printf, 3, 4)));

    // False where a note would reach nobody.
    bool WantsNotes() const noexcept { return wantsNotes_; }

    cr_status_t Status() const noexcept { return failed_ ? CR_STATUS_CORRUPT_RECORD : CR_STATUS_OK; }

private:
    bool Emit(int severity, Finding const& finding, char const* format, va_list arguments) noexcept;

    cr_finding_callback_t callback_;
    void* context_;
    bool wantsNotes_;
    bool failed_ = false;
};

// Keeps the first error for an exception: the listener of those who throw what a walk found.
class FirstError {
public:
    static bool Listen(cr_finding_t const* finding, void* firstError);

    [[noreturn]] void Throw() const { throw exception_; }

private:
    Cr_ErrnoException exception_{CR_STATUS_CORRUPT_RECORD};
};

// The listener that turns a walk into a validator: one trace line for the first error, and the end of the walk. Give
// the reporter null instead while tracing is off.
bool TraceFirstError(cr_finding_t const* finding, void* context);

} // namespace crrecord
