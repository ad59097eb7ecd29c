// What all records of a store say of each container.

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

struct ContainerSums {
    std::uint64_t dcid = 0;
    std::uint64_t uses = 0;    // entries of records
    std::uint64_t records = 0; // that need it
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
    // The container's sums, which are 0 when it is new.
    ContainerSums& Of(std::uint64_t dcid) { return table_.Of(dcid); }

    // For a record of this number: whether the container was not given before for the same record. Before AddSegments.
    static bool IsNewFor(ContainerSums& container, std::uint64_t record) {
        // The sums of segments are not used yet: a member for this would cost memory for each container.
        return std::exchange(container.onlyFirst.segments, record) != record;
    }
    // After the last IsNewFor.
    void ForgetRecords();

    // Adds distinct segments, of containers that Of has been called with. Any number of threads may call it.
    // Throws: TooManyBytes; Failure for a container that is not there.
    void AddSegments(std::span<SegmentTuple const> segments);
    // Segments, so far, whose sizes are not all the same.
    std::uint64_t Conflicts() const { return conflicts_; }

    std::uint64_t size() const { return table_.size(); }
    // By number: in the order in which Of was first called with them.
    ContainerSums const& operator[](std::uint64_t i) const { return table_[i]; }
    // Calls use(ContainerSums) for all in an order. After the last call of the functions above.
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
