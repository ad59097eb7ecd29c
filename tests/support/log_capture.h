// Collects the lines of the log during its lifetime. Allocates nothing.

#pragma once

#include <crrecord/status.h>

#include <cstdio>
#include <string>
#include <utility>

struct LogCapture {
    explicit LogCapture(int trace = 0) {
        CRLogSetSink(Collect, this);
        CRLogSetTrace(trace);
    }
    ~LogCapture() {
        CRLogSetSink(nullptr, nullptr);
        CRLogSetTrace(0);
    }
    // The lines since the last call, such as "error 22: no memory\n".
    std::string Take() { return std::string(text, std::exchange(used, 0)); }

    static void Collect(cr_log_level_t level, cr_status_t status, char const* message, void* context) {
        static constexpr char const* kLevels[] = {"trace", "warning", "error"};
        auto& self = *static_cast<LogCapture*>(context);
        self.used += static_cast<std::size_t>(std::snprintf(self.text + self.used, sizeof self.text - self.used,
                                                            "%s %d: %s\n", kLevels[level], int{status}, message));
    }
    std::size_t used = 0;
    char text[8192];
};
