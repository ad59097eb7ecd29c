// What the serializers of all records share: the output block, and the report of one that could not be had.

#pragma once

#include <crrecord/status.h>

#include <cstdint>

namespace crrecord {

// Where an output block is asked for, as the log and the trace name it.
struct SerializerSite {
    char const* record; // "SO" or "DO"
    char const* function;
    char const* source;
    int line;
};

// Sets *out to `size` bytes of `allocate` (memory.h), and leaves errno alone.
// On failure, or if `size` is above `limit`: sets *out to null, logs the failure and returns its status.
cr_status_t AllocateOutput(SerializerSite const& site, std::uint64_t size, std::uint64_t limit, void** out,
                           void* (*allocate)(std::uint64_t)) noexcept;

} // namespace crrecord
