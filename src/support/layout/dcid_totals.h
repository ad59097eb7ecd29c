// Adds up bytes by container, for containers in any order.

#pragma once

#include "support/layout/unique_list.h"

#include <algorithm>
#include <bit>
#include <vector>

namespace crrecord {

// Sorts by container and merges equal ones, the later into the earlier.
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

// Adds adjacent segments of one container at once. The sums go to a small table of recent containers. Sums that do not
// fit, and those that they replace, go to a list, which is sorted at the end. The cost of a segment is an addition in a
// usual record, a look-up in the table for thousands of containers at random, and a share of the sort for containers
// that were chosen to fill one row of the table.
class DcidTotals {
public:
    explicit DcidTotals(std::uint64_t segments) : segments_(segments) {}

    // `dcid` is not 0. Throws std::bad_alloc.
    void Add(std::uint64_t dcid, std::uint64_t bytes) {
        if (dcid == run_.dcid) {
            run_.bytes += bytes;
            return;
        }
        EndRun();
        run_ = {dcid, bytes};
    }

    // All of them, ascending by container, each once.
    std::vector<UniqueEntry> Take() {
        EndRun();
        std::copy_if(table_.begin(), table_.end(), std::back_inserter(list_),
                     [](UniqueEntry const& entry) { return entry.dcid != 0; });
        SortAndMerge(list_, [](UniqueEntry& kept, UniqueEntry const& more) { kept.bytes += more.bytes; });
        return std::move(list_);
    }

private:
    static constexpr std::size_t kRunsBeforeTable = 256;
    static constexpr std::size_t kLargestTable = 65536;
    static constexpr std::size_t kRow = 8; // places that a container may have: a power of two

    void EndRun() {
        if (run_.dcid == 0) {
            return;
        }
        if (table_.empty() && list_.size() < kRunsBeforeTable) {
            list_.push_back(run_);
        } else {
            AddToTable();
        }
    }

    void AddToTable() {
        if (table_.empty()) {
            table_.resize(std::clamp(std::bit_ceil(segments_ / 4), std::size_t{1024}, kLargestTable));
            unusedBits_ = std::countl_zero(table_.size() - 1);
        }
        // 2^64 by the golden ratio: the highest bits of the product depend on all bits of the container, and those of
        // neighbouring containers lie far apart.
        std::size_t const first = (run_.dcid * 0x9e3779b97f4a7c15) >> unusedBits_;
        for (std::size_t i = 0; i < kRow; ++i) {
            UniqueEntry& place = table_[first ^ i]; // its own, and then the others of its row
            if (place.dcid == run_.dcid || place.dcid == 0) {
                place.dcid = run_.dcid;
                place.bytes += run_.bytes;
                return;
            }
        }
        list_.push_back(run_);
    }

    std::uint64_t segments_;
    int unusedBits_ = 0; // of a hash: all but those of a place in the table
    UniqueEntry run_{0, 0};
    std::vector<UniqueEntry> table_; // rows of places; container 0 marks a free one
    std::vector<UniqueEntry> list_;
};

} // namespace crrecord
