// A progress line on the terminal.

#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

namespace crrecord::tool {

// Draws the line on standard error if that is a terminal that takes control sequences and the work takes long. The
// destructor wipes the line.
class Progress {
public:
    // `total` is 0 if unknown.
    Progress(std::string_view what, std::uint64_t total);
    ~Progress() { Hide(); }
    Progress(Progress const&) = delete;
    Progress& operator=(Progress const&) = delete;

    void At(std::uint64_t bytes);

    // Disables all progress lines.
    static void Disable();

    // Removes the line, if it is drawn, before other output. It is not drawn again while the result lives.
    using Hidden = std::unique_lock<std::mutex>;
    static Hidden Hide();

private:
    using Clock = std::chrono::steady_clock;

    std::string what_;
    std::uint64_t total_;
    bool shown_;
    Clock::time_point start_ = Clock::now();
    Clock::time_point last_ = start_;
};

} // namespace crrecord::tool
