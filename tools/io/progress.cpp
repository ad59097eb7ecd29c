#include "io/progress.h"

#include "io/text.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>
#include <unistd.h>

namespace crrecord::tool {

namespace {

bool drawn = false;

std::string Bar(std::uint64_t bytes, std::uint64_t total) {
    constexpr std::uint64_t kWidth = 24;
    auto const part = static_cast<double>(std::min(bytes, total)) / static_cast<double>(total);
    auto const done = static_cast<std::size_t>(part * kWidth);
    return fmt::format("[{}{}] {:3.0f} %  ", std::string(done, '#'), std::string(kWidth - done, '.'), part * 100);
}

} // namespace

Progress::Progress(std::string_view what, std::uint64_t total)
    : what_(Printable(what)), total_(total), terminal_(::isatty(STDERR_FILENO) == 1) {}

void Progress::At(std::uint64_t bytes) {
    auto const now = Clock::now();
    if (!terminal_ || now - last_ < std::chrono::milliseconds(200)) {
        return;
    }
    last_ = now;
    double const seconds = std::chrono::duration<double>(now - start_).count();
    auto const speed = static_cast<std::uint64_t>(static_cast<double>(bytes) / seconds);
    std::string line = fmt::format("\r\033[K{}  ", what_);
    line += total_ == 0 ? "" : Bar(bytes, total_);
    line += fmt::format("{}  {}/s", InUnits(bytes), InUnits(speed));
    if (speed != 0 && total_ > bytes) {
        line += fmt::format("  {} s left", (total_ - bytes) / speed + 1);
    }
    [[maybe_unused]] ssize_t const written = ::write(STDERR_FILENO, line.data(), line.size());
    drawn = true;
}

void Progress::Wipe() {
    if (std::exchange(drawn, false)) {
        constexpr std::string_view kWipe = "\r\033[K";
        [[maybe_unused]] ssize_t const written = ::write(STDERR_FILENO, kWipe.data(), kWipe.size());
    }
}

} // namespace crrecord::tool
