// The tasks that are still active, from a file with one task id a line.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace crrecord::tool {

// Memory: 8 bytes for each id.
class ActiveTasks {
public:
    // Throws InputFailure for a file that can't be read, and for a line that is no task id and nothing else.
    explicit ActiveTasks(std::string const& name);

    bool Has(std::uint64_t taskId) const;

private:
    std::vector<std::uint64_t> ids_; // ascending
};

} // namespace crrecord::tool
