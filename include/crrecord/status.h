// Status values, the exception, the log and the trace of crrecord.
//
// Every failure of the library is reported in one of three ways: an operation of a class throws Cr_ErrnoException, a
// function that returns cr_status_t returns it, and a function that returns a pointer or an int returns null or -1 and
// leaves the status in this thread's last status. Some failures write a line to the log first.
//
// Threads: every function here may be called from any thread at any time. The last message and the last status belong
// to the calling thread; the trace switch and the sink belong to the process. A child of fork() may log, whatever the
// other threads of its parent did.

#pragma once

#include <crrecord/export.h>

#include <cstdarg>
#include <exception>
#include <sstream>

// Callers compare these values and logs carry them by number, so they never change. A status that another function or
// an error number of the C library produced may be any 32-bit value and passes through unchanged.
enum cr_status_t : int {
    CR_STATUS_OK = 0,
    CR_STATUS_INVALID = 9,           // an argument or value that is not allowed, or a call in the wrong state
    CR_STATUS_NO_MEMORY = 22,        // an allocation failed
    CR_STATUS_CORRUPT_RECORD = 32,   // a received record failed validation
    CR_STATUS_NULL_ARGUMENT = 65,    // a required pointer argument is null
    CR_STATUS_NOT_SUPPORTED = 71,    // a combination, or an algorithm, that is not to be had
    CR_STATUS_NOT_FOUND = 72,        // a looked-for reference is absent
    CR_STATUS_CORRUPT_DATA = 89,     // a segment list contradicts itself, typically by its byte order
    CR_STATUS_INVALID_FP_TYPE = 111, // an unknown fingerprint type
    CR_STATUS_INVALID_DO_TYPE = 113, // an unknown DO type
};

// A short readable text of a status, such as "not enough memory". Never null; the text lives as long as the process.
CRRECORD_API char const* CRStatusToStringA(cr_status_t status) noexcept;

// The one exception type of the library. It carries its texts in itself, so it outlives whatever they were made from,
// and constructing, copying and throwing it allocates nothing beyond the exception object.
class CRRECORD_API Cr_ErrnoException : public std::exception {
public:
    // Longest text that is kept, without the terminating NUL. A longer one is cut there.
    static constexpr unsigned long kMaxText = 1023;
    static constexpr unsigned long kMaxDetail = 255;

    explicit Cr_ErrnoException(cr_status_t status) noexcept;
    // `text` and `detail` are copied; either may be null.
    Cr_ErrnoException(cr_status_t status, char const* text, char const* detail) noexcept;
    Cr_ErrnoException(cr_status_t status, std::stringstream const& text, char const* detail) noexcept;
    Cr_ErrnoException(Cr_ErrnoException const&) noexcept = default;
    Cr_ErrnoException& operator=(Cr_ErrnoException const&) noexcept = default;
    ~Cr_ErrnoException() override;

    cr_status_t GetStatus() const noexcept;
    // The message, or "" for an exception that has a status only.
    char const* what() const noexcept override;
    // The second text, or null where there was none. The library itself never sets one.
    char const* GetDetail() const noexcept;

private:
    cr_status_t status_;
    bool hasDetail_;
    char text_[kMaxText + 1];
    char detail_[kMaxDetail + 1];
};

// --- Log ------------------------------------------------------------------------------------------------------------

enum cr_log_level_t : int {
    CR_LOG_TRACE = 0,
    CR_LOG_WARNING = 1,
    CR_LOG_ERROR = 2,
};

// Receives one formatted line without a line end. `message` is valid during the call; `status` is CR_STATUS_OK for a
// trace line. A sink is called on the thread that logs, without any lock held, so it must be safe to run on several
// threads at once; it may log itself. It must not throw: an exception that leaves it ends the process.
typedef void (*cr_log_sink_t)(cr_log_level_t level, cr_status_t status, char const* message, void* context);

// Routes every line of the process to `sink`; null restores the default, which writes each line to standard error with
// one write, control characters shown as '?', so that lines of many threads never mix. A call that another thread
// began before this function returned may still reach the former sink: keep its context alive until such threads rest.
CRRECORD_API void CRLogSetSink(cr_log_sink_t sink, void* context) noexcept;

// Format a message as printf does, write it to the log, and make it this thread's last message. They leave errno alone
// and may format from the last message itself. A message longer than 1023 characters is visibly cut: its first 1020
// characters followed by "...".
// On failure: a thread's first message allocates 1 KiB to keep it. Without memory the library has buffers for 16
// threads; a further thread's message is written to the log, and its last message is a text that says so.
CRRECORD_API void ErrorA(cr_status_t status, char const* format, ...) noexcept __attribute__((format(printf, 2, 3)));
CRRECORD_API void WarningA(cr_status_t status, char const* format, ...) noexcept __attribute__((format(printf, 2, 3)));

// The message that this thread logged last through ErrorA or WarningA, "" before the first. The text changes with the
// thread's next message.
CRRECORD_API char const* zebLogLastMessageA() noexcept;

// --- Trace ----------------------------------------------------------------------------------------------------------

// Writes a trace line; cut like ErrorA's, but it leaves the last message alone. Call it only while the switch is on.
CRRECORD_API void __TraceA(char const* format, ...) noexcept __attribute__((format(printf, 1, 2)));

// The process-wide trace switch, 0 at start: callers test it before they format anything, so that tracing costs one
// load and one comparison while it is off.
CRRECORD_API int* __zeblog_trace_location() noexcept;

// Sets the switch; safe while other threads trace.
CRRECORD_API void CRLogSetTrace(int on) noexcept;

// --- Error numbers --------------------------------------------------------------------------------------------------

// This thread's last status, 0 in a new thread. Functions that return null or -1 set it; success leaves it alone.
CRRECORD_API cr_status_t* __cr_errno_location() noexcept;

// Maps errno, as an allocation function left it, to a status, and traces where that was. ENOMEM, 0 and every number
// without a row of its own give CR_STATUS_NO_MEMORY. errno stays as it was.
CRRECORD_API cr_status_t _crMapError(char const* function, char const* sourceFile, int line) noexcept;
