#include "io/progress.h"

#include "io/text.h"

#include <algorithm>
#include <initializer_list>
#include <utility>

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace crrecord::tool {

namespace {

bool enabled = true;
std::mutex lineMutex; // of the line on the terminal
bool drawn = false;

// Columns of the terminal but for the last one: some terminals start a new line after it.
std::size_t UsableColumns() {
    constexpr std::size_t kUsual = 80;
    struct winsize size {};
    bool const known = ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0;
    return (known ? size.ws_col : kUsual) - 1;
}

std::string Bar(std::uint64_t bytes, std::uint64_t total) {
    constexpr std::uint64_t kWidth = 24;
    auto const part = static_cast<double>(std::min(bytes, total)) / static_cast<double>(total);
    auto const done = static_cast<std::size_t>(part * kWidth);
    return fmt::format("[{}{}] {:3.0f} %", std::string(done, '#'), std::string(kWidth - done, '.'), part * 100);
}

// Joins the parts that fit into `columns`; earlier parts have priority. A character has at least as many bytes as
// columns.
std::string Joined(std::initializer_list<std::string_view> parts, std::size_t columns) {
    std::string line;
    for (std::string_view const part : parts) {
        std::string_view const gap = line.empty() ? "" : "  ";
        if (!part.empty() && line.size() + gap.size() + part.size() <= columns) {
            line.append(gap).append(part);
        }
    }
    return line;
}

} // namespace

Progress::Progress(std::string_view what, std::uint64_t total)
    : what_(Printable(what)), total_(total), shown_(enabled && TakesSequences(STDERR_FILENO)) {}

void Progress::Disable() {
    enabled = false;
}

void Progress::At(std::uint64_t bytes) {
    auto const now = Clock::now();
    if (!shown_ || now - last_ < std::chrono::milliseconds(200)) {
        return;
    }
    last_ = now;
    double const seconds = std::chrono::duration<double>(now - start_).count();
    auto const speed = static_cast<std::uint64_t>(static_cast<double>(bytes) / seconds);
    bool const isKnown = speed != 0 && total_ > bytes;
    std::string const line = "\r\033[K" + Joined({InUnits(bytes), InUnits(speed) + "/s",
                                                  isKnown ? fmt::format("{} s left", (total_ - bytes) / speed + 1) : "",
                                                  total_ == 0 ? "" : Bar(bytes, total_), what_},
                                                 UsableColumns());
    std::lock_guard const lock(lineMutex);
    [[maybe_unused]] ssize_t const written = ::write(STDERR_FILENO, line.data(), line.size());
    drawn = true;
}

Progress::Hidden Progress::Hide() {
    Hidden lock(lineMutex);
    if (std::exchange(drawn, false)) {
        constexpr std::string_view kWipe = "\r\033[K";
        [[maybe_unused]] ssize_t const written = ::write(STDERR_FILENO, kWipe.data(), kWipe.size());
    }
    return lock;
}

} // namespace crrecord::tool
