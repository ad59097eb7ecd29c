// A line on the terminal that shows the progress of long work.

#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace crrecord::tool {

// Draws the line on standard error if that is a terminal that takes control sequences, for work that lasts; wipes it
// when the work is over.
class Progress {
public:
    // `total` is 0 if it is not known.
    Progress(std::string_view what, std::uint64_t total);
    ~Progress() { Wipe(); }
    Progress(Progress const&) = delete;
    Progress& operator=(Progress const&) = delete;

    void At(std::uint64_t bytes);

    // No progress is drawn from now on.
    static void Disable();

    // Takes the bar that is drawn, if one is, out of the way of other lines.
    static void Wipe();

private:
    using Clock = std::chrono::steady_clock;

    std::string what_;
    std::uint64_t total_;
    bool shown_;
    Clock::time_point start_ = Clock::now();
    Clock::time_point last_ = start_;
};

} // namespace crrecord::tool
