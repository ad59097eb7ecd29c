#include "analysis/active_tasks.h"

#include "io/failure.h"
#include "io/input.h"
#include "io/text.h"

#include <algorithm>
#include <charconv>
#include <limits>

#include <fmt/format.h>

namespace crrecord::tool {

namespace {

constexpr std::size_t kLongestId = std::numeric_limits<std::uint64_t>::digits10 + 1;
constexpr std::size_t kLongestLine = kLongestId + 1; // with the CR that some write in front of its end

// Calls use(line) for each line of the input, without its end; for the beginning of one that is too long.
template <class Use>
void ForEachLine(Input& input, Use use) {
    std::vector<unsigned char> block(64UL * 1024);
    std::string line;
    while (std::size_t const count = input.Read(block)) {
        for (auto from = block.begin(), end = from + static_cast<std::ptrdiff_t>(count); from != end;) {
            auto const to = std::find(from, end, '\n');
            line.append(from, to);
            if (to != end || line.size() > kLongestLine) {
                use(std::string_view(line).substr(0, kLongestLine + 1));
                line.clear();
            }
            from = to == end ? end : to + 1;
        }
    }
    if (!line.empty()) {
        use(line);
    }
}

} // namespace

ActiveTasks::ActiveTasks(std::string const& name) {
    Input input(name);
    std::uint64_t number = 0;
    ForEachLine(input, [&](std::string_view line) {
        ++number;
        line.remove_suffix(line.ends_with('\r') ? 1 : 0);
        std::uint64_t id = 0;
        char const* const end = line.data() + line.size();
        auto const [stop, error] = std::from_chars(line.data(), end, id);
        if (stop != end || error != std::errc() || line.size() > kLongestId) {
            throw InputFailure(
                fmt::format("{}: line {}: found \"{}\", expected a task id", name, number, Printable(line)));
        }
        ids_.push_back(id);
    });
    std::sort(ids_.begin(), ids_.end());
}

bool ActiveTasks::Has(std::uint64_t taskId) const {
    return std::binary_search(ids_.begin(), ids_.end(), taskId);
}

} // namespace crrecord::tool
