#include "io/text.h"

#include <algorithm>
#include <array>
#include <cstdlib>

#include <fmt/format.h>
#include <unistd.h>

namespace crrecord::tool {

std::string Printable(std::string_view text) {
    std::string shown(text);
    std::replace_if(
        shown.begin(), shown.end(), [](unsigned char byte) { return byte < 0x20 || byte == 0x7f; }, '?');
    return shown;
}

std::string Counted(std::uint64_t count, std::string_view noun) {
    return std::to_string(count).append(" ").append(noun).append(count == 1 ? "" : "s");
}

std::string InUnits(std::uint64_t bytes) {
    constexpr std::array kUnits{"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024) {
        return Counted(bytes, "byte");
    }
    auto value = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    // What would be rounded to 1024.0 is 1.0 of the next.
    for (; value >= 1023.95 && unit + 1 < kUnits.size(); ++unit) {
        value /= 1024;
    }
    return fmt::format("{:.1f} {}", value, kUnits[unit]);
}

std::string WithUnit(std::uint64_t bytes) {
    std::string const exact = Counted(bytes, "byte");
    std::string const rounded = InUnits(bytes);
    return rounded == exact ? exact : fmt::format("{} ({})", exact, rounded);
}

std::string Painted(std::string_view text, Colour colour, bool coloured) {
    constexpr std::array kCodes{"32", "33", "31", "1"};
    return coloured ? fmt::format("\033[{}m{}\033[0m", kCodes[static_cast<std::size_t>(colour)], text)
                    : std::string(text);
}

bool TakesColours(int file) {
    char const* const refused = std::getenv("NO_COLOR");
    char const* const terminal = std::getenv("TERM");
    return ::isatty(file) == 1 && (refused == nullptr || *refused == '\0') && terminal != nullptr &&
           std::string_view(terminal) != "dumb";
}

} // namespace crrecord::tool
