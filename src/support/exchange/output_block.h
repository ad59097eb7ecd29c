// Allocation of the output block of a serializer, for all record types.

#pragma once

#include <crrecord/status.h>

#include <cstdint>

namespace crrecord {

// The position of an allocation, as the log and the trace name it.
struct SerializerSite {
    char const* record; // "SO" or "DO"
    char const* function;
    char const* source;
    int line;
};

// Sets *out to a block of `size` bytes from `allocate` (memory.h). errno is unchanged.
// On failure, or if `size` is above `limit`: sets *out to null, logs the failure and returns its status.
cr_status_t AllocateOutput(SerializerSite const& site, std::uint64_t size, std::uint64_t limit, void** out,
                           void* (*allocate)(std::uint64_t)) noexcept;

} // namespace crrecord
