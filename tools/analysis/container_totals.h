// What many records need of each container.

#pragma once

#include "analysis/hash_table.h"
#include "io/failure.h"

#include <optional>

namespace crrecord::tool {

struct ContainerTotals {
    std::uint64_t dcid;
    std::uint64_t segments;
    std::uint64_t bytes;
    std::uint64_t fragments; // runs of neighbouring segments of an object that lie in it
};

struct HashOfContainer {
    std::uint64_t operator()(auto const& entry) const { return HashOfNumber(entry.dcid); }
};

// A sum of bytes would pass 64 bits.
struct TooManyBytes : Failure {
    TooManyBytes() : Failure("the records tell of more than 2^64 - 1 bytes") {}
};

// Adds to a sum of bytes, or throws TooManyBytes and leaves it as it was.
inline void AddBytes(std::uint64_t& sum, std::uint64_t bytes) {
    std::uint64_t more = 0;
    if (__builtin_add_overflow(sum, bytes, &more)) {
        throw TooManyBytes();
    }
    sum = more;
}

// Memory: 43 bytes for each container.
class Containers {
public:
    // Counts a container's totals in; they add up to no more bytes than fit 64 bits.
    void Add(ContainerTotals const& more) {
        if (!last_ || last_->dcid != more.dcid) {
            last_ = &Of(more.dcid);
        }
        last_->segments += more.segments;
        last_->bytes += more.bytes;
        last_->fragments += more.fragments;
    }

    std::size_t size() const { return table_.size(); }

    // By id; or, with `top`, so many of the greatest by bytes.
    std::vector<ContainerTotals const*> Sorted(std::optional<std::uint64_t> top) const;

private:
    ContainerTotals& Of(std::uint64_t dcid);

    HashTable<ContainerTotals, HashOfContainer> table_;
    ContainerTotals* last_ = nullptr; // neighbouring segments often lie in one container
};

} // namespace crrecord::tool
