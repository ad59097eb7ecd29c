// Sums by container over many records.

#pragma once

#include "analysis/hash_table.h"
#include "io/failure.h"

#include <algorithm>
#include <optional>

namespace crrecord::tool {

struct ContainerTotals {
    std::uint64_t dcid;
    std::uint64_t segments = 0;
    std::uint64_t bytes = 0;
    std::uint64_t fragments = 0; // runs of consecutive segments of an object in this container
};

// A sum of bytes would exceed 64 bits.
struct TooManyBytes : Failure {
    TooManyBytes() : Failure("the records describe more than 2^64 - 1 bytes") {}
};

// Adds to a sum of bytes. Throws: TooManyBytes; the sum is unchanged.
inline void AddBytes(std::uint64_t& sum, std::uint64_t bytes) {
    std::uint64_t more = 0;
    if (__builtin_add_overflow(sum, bytes, &more)) {
        throw TooManyBytes();
    }
    sum = more;
}

// Memory: 39 bytes for each container.
class Containers {
public:
    // Adds to a container's sums. The caller has checked that the sum of all bytes fits 64 bits.
    void Add(ContainerTotals const& more) {
        ContainerTotals& totals = table_.Of(more.dcid);
        totals.segments += more.segments;
        totals.bytes += more.bytes;
        totals.fragments += more.fragments;
    }

    std::size_t size() const { return table_.size(); }

    // Returns: the containers by id; with `top`, at most `top` containers with the most bytes, in descending order.
    std::vector<ContainerTotals const*> Sorted(std::optional<std::uint64_t> top) const {
        std::vector<ContainerTotals const*> sorted(table_.size());
        for (std::size_t i = 0; i < sorted.size(); ++i) {
            sorted[i] = &table_[i];
        }
        auto const byId = [](auto const* a, auto const* b) { return a->dcid < b->dcid; };
        if (!top) {
            std::sort(sorted.begin(), sorted.end(), byId);
            return sorted;
        }
        auto const end = sorted.begin() + static_cast<std::ptrdiff_t>(std::min<std::uint64_t>(*top, sorted.size()));
        std::partial_sort(sorted.begin(), end, sorted.end(), [&](auto const* a, auto const* b) {
            return a->bytes != b->bytes ? a->bytes > b->bytes : byId(a, b);
        });
        sorted.erase(end, sorted.end());
        return sorted;
    }

private:
    ContainerTable<ContainerTotals> table_;
};

} // namespace crrecord::tool
