// The trace switch, for use inside the library: one load and one comparison.

#pragma once

#include <crrecord/status.h>

#include <atomic>

namespace crrecord {

// __zeblog_trace_location returns its address; callers access it as a plain int.
extern int traceSwitch;

inline bool TraceOn() noexcept {
    return std::atomic_ref<int>(traceSwitch).load(std::memory_order_relaxed) != 0;
}

} // namespace crrecord
