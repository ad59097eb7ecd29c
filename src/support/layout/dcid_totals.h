// Sums of bytes by container, for containers in any order.

#pragma once

#include "support/layout/unique_list.h"

#include <algorithm>
#include <bit>
#include <vector>

namespace crrecord {

// Sorts by container. Calls merge(earlier, later) for entries of the same container and keeps the earlier one.
template <class Merge>
void SortAndMerge(std::vector<UniqueEntry>& entries, Merge merge) {
    std::stable_sort(entries.begin(), entries.end(),
                     [](UniqueEntry const& a, UniqueEntry const& b) { return a.dcid < b.dcid; });
    std::size_t kept = 0;
    for (std::size_t i = 1; i < entries.size(); ++i) {
        if (entries[i].dcid == entries[kept].dcid) {
            merge(entries[kept], entries[i]);
        } else {
            entries[++kept] = entries[i];
        }
    }
    entries.resize(entries.empty() ? 0 : kept + 1);
}

// Adds up the bytes of runs of segments in one container. The first kRunsBeforeTable runs go to a list, later ones to a
// small hash table. A run goes to the list too if its row of the table is full. Take() sorts the list. A run costs
// little in a usual record, a table look-up if containers are at random, and a share of the sort if containers were
// chosen to fill one row.
class DcidTotals {
public:
    explicit DcidTotals(std::uint64_t segments) : segments_(segments) {}

    // Adds a run. `dcid` must not be 0. Throws: std::bad_alloc.
    void Add(std::uint64_t dcid, std::uint64_t bytes) {
        if (table_.empty() && list_.size() < kRunsBeforeTable) {
            list_.push_back({dcid, bytes});
        } else {
            AddToTable({dcid, bytes});
        }
    }

    // Returns: one entry for each container, in ascending order.
    std::vector<UniqueEntry> Take() {
        std::copy_if(table_.begin(), table_.end(), std::back_inserter(list_),
                     [](UniqueEntry const& entry) { return entry.dcid != 0; });
        SortAndMerge(list_, [](UniqueEntry& kept, UniqueEntry const& more) { kept.bytes += more.bytes; });
        return std::move(list_);
    }

private:
    static constexpr std::size_t kRunsBeforeTable = 256;
    static constexpr std::size_t kLargestTable = 65536;
    static constexpr std::size_t kRow = 8; // entries in a row, a power of two

    void AddToTable(UniqueEntry const& run) {
        if (table_.empty()) {
            table_.resize(std::clamp(std::bit_ceil(segments_ / 4), std::size_t{1024}, kLargestTable));
            unusedBits_ = std::countl_zero(table_.size() - 1);
        }
        // The factor is 2^64 divided by the golden ratio. The highest bits of the product depend on all bits of the
        // container, and consecutive containers get distant rows.
        std::size_t const first = (run.dcid * 0x9e3779b97f4a7c15) >> unusedBits_;
        for (std::size_t i = 0; i < kRow; ++i) {
            UniqueEntry& place = table_[first ^ i]; // the hashed entry first, then the others of its row
            if (place.dcid == run.dcid || place.dcid == 0) {
                place.dcid = run.dcid;
                place.bytes += run.bytes;
                return;
            }
        }
        list_.push_back(run);
    }

    std::uint64_t segments_;
    int unusedBits_ = 0;             // low bits of the product that are not used as an index
    std::vector<UniqueEntry> table_; // container 0 marks a free entry
    std::vector<UniqueEntry> list_;
};

} // namespace crrecord
