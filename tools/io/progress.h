// A line on the terminal that tells how far long work has come.

#pragma once

#include "io/failure.h"

#include <chrono>
#include <cstdint>
#include <string>

#include <fmt/format.h>
#include <unistd.h>

namespace crrecord::tool {

// Writes to standard error, only where that is a terminal, and wipes the line when the work is over.
class Progress {
public:
    // `total` is 0 where it is not known.
    Progress(std::string_view what, std::uint64_t total)
        : what_(Printable(what)), total_(total), terminal_(::isatty(STDERR_FILENO) == 1) {}
    ~Progress() {
        if (shown_) {
            fmt::print(stderr, "\r\033[K");
        }
    }
    Progress(Progress const&) = delete;
    Progress& operator=(Progress const&) = delete;

    void At(std::uint64_t bytes) {
        auto const now = std::chrono::steady_clock::now();
        if (!terminal_ || now - last_ < std::chrono::milliseconds(200)) {
            return;
        }
        last_ = now;
        shown_ = true;
        double const mebibyte = 1024 * 1024;
        fmt::print(stderr, "\r\033[Kcrrecord: {}: {:.1f} MiB", what_, static_cast<double>(bytes) / mebibyte);
        if (total_ != 0) {
            fmt::print(stderr, " of {:.1f} MiB, {}%", static_cast<double>(total_) / mebibyte, bytes * 100 / total_);
        }
    }

private:
    std::string what_;
    std::uint64_t total_;
    bool terminal_;
    bool shown_ = false;
    std::chrono::steady_clock::time_point last_ = std::chrono::steady_clock::now();
};

} // namespace crrecord::tool
