#include "io/line_reader.h"

#include "io/failure.h"

#include <charconv>
#include <limits>

#include <fmt/format.h>

namespace crrecord::tool {

std::vector<std::uint64_t> ReadNumbers(std::string const& name, std::string_view what) {
    constexpr std::size_t kLongest = std::numeric_limits<std::uint64_t>::digits10 + 1;
    std::vector<std::uint64_t> numbers;
    Input input(name);
    LineReader lines(input, kLongest + 1); // a carriage return may end a line
    while (auto const next = lines.Next()) {
        std::string_view line = *next;
        line.remove_suffix(line.ends_with('\r') ? 1 : 0);
        char const* const end = line.data() + line.size();
        auto const [stop, error] = std::from_chars(line.data(), end, numbers.emplace_back());
        if (stop != end || error != std::errc() || line.size() > kLongest) {
            throw InputFailure(
                fmt::format("{}: line {}: found \"{}\", expected {}", name, lines.Number(), Printable(line), what));
        }
    }
    return numbers;
}

} // namespace crrecord::tool
