// Status values, the exception, the log and the trace of crrecord.
//
// Operations of classes throw Cr_ErrnoException. Functions that return cr_status_t return the status. Functions that
// return a pointer or an int return null or -1 and store the status in this thread's last status. Besides,
// std::bad_alloc may come from operations of classes that allocate containers or handles. Some failures first write a
// line to the log.
//
// Thread safety: every function here may be called from any thread. The last message and the last status belong to the
// calling thread; the trace switch and the sink belong to the process. No function may be called from a signal handler.
// A child of fork() may log, whatever the other threads of its parent did.

#pragma once

#include <crrecord/export.h>

#include <cstdarg>
#include <exception>
#include <sstream>

// The values never change, since callers compare them and logs hold them as numbers. A status that came from another
// function may be any 32-bit value and is passed on unchanged.
enum cr_status_t : int {
    CR_STATUS_OK = 0,
    CR_STATUS_INVALID = 9,           // an argument or value that is not allowed, or a call in the wrong state
    CR_STATUS_NO_MEMORY = 22,        // an allocation failed
    CR_STATUS_CORRUPT_RECORD = 32,   // received bytes failed validation
    CR_STATUS_NULL_ARGUMENT = 65,    // a required pointer argument is null
    CR_STATUS_NOT_SUPPORTED = 71,    // an unsupported combination, or an algorithm that is not available
    CR_STATUS_NOT_FOUND = 72,        // the reference is not in the record
    CR_STATUS_CORRUPT_DATA = 89,     // a segment list that contradicts itself, often in the wrong byte order
    CR_STATUS_INVALID_FP_TYPE = 111, // an unknown fingerprint type
    CR_STATUS_INVALID_DO_TYPE = 113, // an unknown DO type
};

// Returns: a short text of the status, such as "not enough memory"; "unknown status" for other values. Never null.
// Lifetime: the text lives as long as the process.
CRRECORD_API char const* CRStatusToStringA(cr_status_t status) noexcept;

// The library's only exception type. It holds copies of its texts. Constructing, copying and throwing it allocates
// nothing beyond the exception object itself.
class CRRECORD_API Cr_ErrnoException : public std::exception {
public:
    // Longest text and detail in bytes, without the terminating NUL. Longer ones are cut.
    static constexpr unsigned long kMaxText = 1023;
    static constexpr unsigned long kMaxDetail = 255;

    explicit Cr_ErrnoException(cr_status_t status) noexcept;
    // Copy `text` and `detail`; either may be null.
    Cr_ErrnoException(cr_status_t status, char const* text, char const* detail) noexcept;
    Cr_ErrnoException(cr_status_t status, std::stringstream const& text, char const* detail) noexcept;
    Cr_ErrnoException(Cr_ErrnoException const&) noexcept = default;
    Cr_ErrnoException& operator=(Cr_ErrnoException const&) noexcept = default;
    ~Cr_ErrnoException() override;

    cr_status_t GetStatus() const noexcept;
    // Returns: the text, or "" without one.
    // Lifetime: until the exception is destroyed or assigned to; also GetDetail's.
    char const* what() const noexcept override;
    // Returns: the second text, or null without one. The library itself sets none.
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
// trace line. The sink may log. It must not throw: an exception that leaves it ends the process.
// Thread safety: it is called on the thread that logs, without a lock, so it may run on several threads at once.
typedef void (*cr_log_sink_t)(cr_log_level_t level, cr_status_t status, char const* message, void* context);

// Sends every line of the process to `sink`. Null restores the default, which writes each line to standard error with
// one write, so that lines of several threads do not mix, and prints each byte of a control character (C0, DEL and C1
// in UTF-8) as '?'.
// Lifetime: a call to the former sink may still be running on another thread, so keep its context until these threads
// have stopped.
CRRECORD_API void CRLogSetSink(cr_log_sink_t sink, void* context) noexcept;

// Format a message as printf does, write it to the log, and make it this thread's last message. The arguments may
// include the last message itself. They preserve errno. A message longer than 1023 bytes is cut to its first 1020 bytes
// followed by "...".
// On failure: a thread's first message allocates 1 KiB to keep it. Without memory the library has buffers for 16
// threads; a further thread's message is written to the log, and its last message is a text that says so.
CRRECORD_API void ErrorA(cr_status_t status, char const* format, ...) noexcept __attribute__((format(printf, 2, 3)));
CRRECORD_API void WarningA(cr_status_t status, char const* format, ...) noexcept __attribute__((format(printf, 2, 3)));

// Returns: the message that this thread logged last with ErrorA or WarningA; "" before the first. Never null.
// Lifetime: until the thread logs the next message or ends.
CRRECORD_API char const* zebLogLastMessageA() noexcept;

// --- Trace ----------------------------------------------------------------------------------------------------------

// Formats and writes a trace line, cut as ErrorA cuts. Does not change the last message. It does not check the trace
// switch: call it only if tracing is on.
CRRECORD_API void __TraceA(char const* format, ...) noexcept __attribute__((format(printf, 1, 2)));

// Returns: the trace switch of the process, 0 at start. Callers check it before they format anything, so that disabled
// tracing costs one load and one comparison.
CRRECORD_API int* __zeblog_trace_location() noexcept;

// Sets the trace switch: 0 is off. May be called while other threads trace.
CRRECORD_API void CRLogSetTrace(int on) noexcept;

// --- Error numbers --------------------------------------------------------------------------------------------------

// Returns: this thread's last status, CR_STATUS_OK in a new thread. Failures set it (see above); success does not reset
// it.
// Lifetime: until the thread ends.
CRRECORD_API cr_status_t* __cr_errno_location() noexcept;

// Maps errno, as an allocation function left it, to a status, and writes a trace line with the arguments if tracing is
// on. Preserves errno.
// Returns: CR_STATUS_INVALID for EINVAL; CR_STATUS_NO_MEMORY for every other value, also for 0.
CRRECORD_API cr_status_t _crMapError(char const* function, char const* sourceFile, int line) noexcept;
