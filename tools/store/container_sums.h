// Sums over all records of a store, for each container.

#pragma once

#include "analysis/container_totals.h"
#include "store/partitions.h"

#include <algorithm>
#include <atomic>
#include <numeric>

namespace crrecord::tool {

struct SegmentSums {
    std::uint64_t segments = 0;
    std::uint64_t bytes = 0;
};

// Throws: TooManyBytes; `sums` is unchanged.
inline void Add(SegmentSums& sums, SegmentSums const& more) {
    AddBytes(sums.bytes, more.bytes);
    sums.segments += more.segments;
}

struct ContainerSums {
    std::uint64_t dcid = 0;
    std::uint64_t uses = 0;         // entries of records
    std::uint64_t records : 63 = 0; // that need it
    // A bloom record needs it, perhaps with 0 bytes. Shares the word of `records`, since memory for each container
    // counts.
    std::uint64_t isInBloom : 1 = 0;
    std::uint64_t bloomBytes = 0;
    std::uint64_t ownBytes = 0;
    // Distinct segments of each set, and those of the first set that are not in the second one.
    SegmentSums first{};
    SegmentSums second{};
    SegmentSums onlyFirst{};
};

// Memory: at most 95 bytes for each container.
class StoreContainers {
public:
    // Returns: the container's sums, which are 0 for a new container.
    ContainerSums& Of(std::uint64_t dcid) { return table_.Of(dcid); }

    // Returns: whether this is the first call for `container` with this record number. Call it before AddSegments only.
    static bool IsNewFor(ContainerSums& container, std::uint64_t record) {
        // The sums of segments are not used yet: a member for this would cost memory for each container.
        return std::exchange(container.onlyFirst.segments, record) != record;
    }
    // Call it after the last IsNewFor.
    void ForgetRecords();

    // Adds distinct segments of containers that Of was called with. Thread safety: any number of threads.
    // Throws: TooManyBytes; Failure for a container that Of was not called with.
    void AddSegments(TupleBlock const& segments);
    // Returns: the number of segments so far with different sizes.
    std::uint64_t Conflicts() const { return conflicts_; }

    std::uint64_t size() const { return table_.size(); }
    // Containers are numbered in the order of the first calls of Of.
    ContainerSums const& operator[](std::uint64_t i) const { return table_[i]; }
    // Calls use(ContainerSums) for all containers in the order `before`. No function above may be called afterwards.
    template <class Before, class Use>
    void ForEachSorted(Before before, Use use) {
        table_.FreeLinks();
        std::vector<std::uint32_t> order(table_.size());
        std::iota(order.begin(), order.end(), 0U);
        std::sort(order.begin(), order.end(),
                  [&](std::uint32_t a, std::uint32_t b) { return before(table_[a], table_[b]); });
        for (std::uint32_t const i : order) {
            use(std::as_const(table_[i]));
        }
    }
    template <class Use>
    void ForEach(Use use) {
        ForEachSorted([](ContainerSums const& a, ContainerSums const& b) { return a.dcid < b.dcid; }, use);
    }

private:
    ContainerTable<ContainerSums> table_;
    std::atomic<std::uint64_t> conflicts_{0};

    void AddSums(ContainerSums const& sums);
};

} // namespace crrecord::tool
