// The trace switch as the library itself reads it: one load and one comparison.

#pragma once

#include <crrecord/status.h>

#include <atomic>

namespace crrecord {

// Behind __zeblog_trace_location, whose callers read it as the plain int that it is.
extern int traceSwitch;

inline bool TraceOn() noexcept {
    return std::atomic_ref<int>(traceSwitch).load(std::memory_order_relaxed) != 0;
}

} // namespace crrecord
