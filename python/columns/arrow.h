// The Arrow C data and C stream interfaces: structures by which columns are passed to other libraries without a copy.
// Their members are fixed by https://arrow.apache.org/docs/format/CDataInterface.html and CStreamInterface.html.

#pragma once

#include <cstdint>

namespace crrecord::python::arrow {

inline constexpr std::int64_t kNullable = 2; // a flag of Schema

struct Schema {
    char const* format;
    char const* name;
    char const* metadata;
    std::int64_t flags;
    std::int64_t childCount;
    Schema** children;
    Schema* dictionary;
    void (*release)(Schema*); // null in a released structure
    void* owner;
};

struct Array {
    std::int64_t length;
    std::int64_t nullCount;
    std::int64_t offset;
    std::int64_t bufferCount;
    std::int64_t childCount;
    void const** buffers;
    Array** children;
    Array* dictionary;
    void (*release)(Array*); // null in a released structure
    void* owner;
};

// The functions return 0 or an errno. At the end of the stream `next` returns a released array.
struct Stream {
    int (*schema)(Stream*, Schema*);
    int (*next)(Stream*, Array*);
    char const* (*lastError)(Stream*);
    void (*release)(Stream*); // null in a released structure
    void* owner;
};

} // namespace crrecord::python::arrow
