// A line on the terminal that tells how far long work has come.

#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace crrecord::tool {

// Draws a bar on standard error, only where that is a terminal, for work that lasts; wipes it when the work is over.
class Progress {
public:
    // `total` is 0 where it is not known.
    Progress(std::string_view what, std::uint64_t total);
    ~Progress() { Wipe(); }
    Progress(Progress const&) = delete;
    Progress& operator=(Progress const&) = delete;

    void At(std::uint64_t bytes);

    // Takes the bar that is drawn, if one is, out of the way of other lines.
    static void Wipe();

private:
    using Clock = std::chrono::steady_clock;

    std::string what_;
    std::uint64_t total_;
    bool terminal_;
    Clock::time_point start_ = Clock::now();
    Clock::time_point last_ = start_;
};

} // namespace crrecord::tool
