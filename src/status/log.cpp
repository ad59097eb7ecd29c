// The log and the trace.

#include <crrecord/status.h>

#include "base/fork_safe_mutex.h"
#include "status/last_message.h"
#include "status/trace.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>

#include <unistd.h>

namespace crrecord {

int traceSwitch = 0;

namespace {

constexpr char kCutMark[] = "...";

struct Sink {
    cr_log_sink_t write;
    void* context;
};

// Guards the pair, so that no sink is called with another sink's context. It is locked only to copy or set the pair.
ForkSafeMutex<Sink> sinkMutex;
Sink sink{nullptr, nullptr};

// Restores errno: callers log a failure before they read errno.
class ErrnoKeeper {
public:
    ErrnoKeeper() noexcept : error_(errno) {}
    ~ErrnoKeeper() { errno = error_; }
    ErrnoKeeper(ErrnoKeeper const&) = delete;
    ErrnoKeeper& operator=(ErrnoKeeper const&) = delete;

private:
    int error_;
};

void Format(char (&message)[kMessageSize], char const* format, va_list arguments) noexcept {
    int const length = std::vsnprintf(message, sizeof message, format, arguments);
    if (length < 0) {
        std::snprintf(message, sizeof message, "%s", format);
    } else if (static_cast<std::size_t>(length) >= sizeof message) {
        std::memcpy(message + sizeof message - sizeof kCutMark, kCutMark, sizeof kCutMark);
    }
}

// Returns: the bytes of the control character at the start of the text: C0 and DEL have one, C1 has two in UTF-8; 0 for
// any other text.
std::size_t ControlSize(char const* text) noexcept {
    auto const first = static_cast<unsigned char>(text[0]);
    if (first == 0xc2) {
        auto const second = static_cast<unsigned char>(text[1]);
        return second >= 0x80 && second <= 0x9f ? 2 : 0;
    }
    return first < 0x20 || first == 0x7f ? 1 : 0;
}

// Writes the line with one system call, so that lines of several threads do not mix.
void WriteToStandardError(cr_log_level_t level, cr_status_t status, char const* message) noexcept {
    static constexpr char const* kLevels[] = {"trace", "warning", "error"};
    char line[kMessageSize + 64];
    int const prefix = level == CR_LOG_TRACE ? std::snprintf(line, sizeof line, "crrecord: trace: ")
                                             : std::snprintf(line, sizeof line, "crrecord: %s %d: ", kLevels[level],
                                                             static_cast<int>(status));
    std::size_t length = static_cast<std::size_t>(prefix);
    for (char const* at = message; *at != '\0'; ++at) {
        std::size_t const control = ControlSize(at);
        if (control == 2) {
            line[length++] = '?';
            ++at;
        }
        line[length++] = control != 0 ? '?' : *at;
    }
    line[length++] = '\n';
    // A failure to write to standard error cannot be reported.
    [[maybe_unused]] ssize_t const written = ::write(STDERR_FILENO, line, length);
}

void Emit(cr_log_level_t level, cr_status_t status, char const* message) noexcept {
    Sink current;
    {
        std::lock_guard const lock(sinkMutex);
        current = sink;
    }
    if (current.write) {
        current.write(level, status, message, current.context);
    } else {
        WriteToStandardError(level, status, message);
    }
}

// Formats the whole message before it sets the last message, because an argument may be the last message.
void Log(cr_log_level_t level, cr_status_t status, char const* format, va_list arguments) noexcept {
    ErrnoKeeper const keeper;
    char message[kMessageSize];
    Format(message, format, arguments);
    SetLastMessage(message);
    Emit(level, status, message);
    // The sink may have logged and so changed the last message. The caller reads back the message that it logged.
    SetLastMessage(message);
}

} // namespace

} // namespace crrecord

void CRLogSetSink(cr_log_sink_t write, void* context) noexcept {
    std::lock_guard const lock(crrecord::sinkMutex);
    crrecord::sink = {write, context};
}

void ErrorA(cr_status_t status, char const* format, ...) noexcept {
    va_list arguments;
    va_start(arguments, format);
    crrecord::Log(CR_LOG_ERROR, status, format, arguments);
    va_end(arguments);
}

void WarningA(cr_status_t status, char const* format, ...) noexcept {
    va_list arguments;
    va_start(arguments, format);
    crrecord::Log(CR_LOG_WARNING, status, format, arguments);
    va_end(arguments);
}

char const* zebLogLastMessageA() noexcept {
    return crrecord::LastMessage();
}

void __TraceA(char const* format, ...) noexcept {
    crrecord::ErrnoKeeper const keeper;
    char message[crrecord::kMessageSize];
    va_list arguments;
    va_start(arguments, format);
    crrecord::Format(message, format, arguments);
    va_end(arguments);
    crrecord::Emit(CR_LOG_TRACE, CR_STATUS_OK, message);
}

int* __zeblog_trace_location() noexcept {
    return &crrecord::traceSwitch;
}

void CRLogSetTrace(int on) noexcept {
    std::atomic_ref<int>(crrecord::traceSwitch).store(on, std::memory_order_relaxed);
}
