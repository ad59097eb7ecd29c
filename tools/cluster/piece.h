// What the scan of a piece, some consecutive records of a store, writes to a work file.

#pragma once

#include "cluster/work_file.h"
#include "record/validation_tally.h"
#include "store/lost_scan.h"
#include "store/scan.h"

#include <array>

namespace crrecord::tool {

// The counts of a piece. All of them can be added.
class PieceCounts {
public:
    enum Name : unsigned int {
        kRecords,
        kHeld,
        kInFirst,
        kInSecond,
        kBad,
        kRefused,
        kSegmentRecords,
        kSkipped,
        kUnread,
        kUnknownRests, // parts that are not read and whose size is unknown
        kSegments,
        kBytes,
        kBloomBytes,
        kNotes,
        kClaimed, // the sizes that records claim, without those of the pieces before
        kFetches, // of a cache of containers that was empty at first
        kCount,
    };

    PieceCounts() = default;
    explicit PieceCounts(StoreTotals const& totals);
    explicit PieceCounts(LostTotals const& totals);
    explicit PieceCounts(ValidationTally const& tally);

    std::uint64_t operator[](Name name) const { return counts_[name]; }
    std::uint64_t& operator[](Name name) { return counts_[name]; }
    // Throws: TooManyBytes.
    void Add(PieceCounts const& more);

    StoreTotals ForStore() const;
    LostTotals ForLost() const;
    ValidationTally ForValidation() const;

private:
    std::array<std::uint64_t, kCount> counts_{};

    void SetGaps(GapSums const& gaps);
    GapSums Gaps() const;
};

// The sums of a container in a piece or a partition.
struct ContainerRow {
    // In a piece the number of the container. In a partition what the rows of all partitions are merged by.
    std::uint64_t order;
    ContainerSums sums;
};

// The streams of a piece's file.
namespace piece_stream {
inline constexpr std::uint32_t kCounts = 0;    // one PieceCounts
inline constexpr std::uint32_t kMessages = 1;  // texts, each with a NUL at its end
inline constexpr std::uint32_t kLines = 2;     // of the output
inline constexpr std::uint32_t kFirstUses = 3; // containers in the order of their first use
inline constexpr std::uint32_t kLastUses = 4;  // the containers in the cache, the one used last first
inline constexpr std::uint32_t kFixed = 5;
constexpr std::uint32_t TuplesOf(std::uint32_t partition) {
    return kFixed + 2 * partition;
}
constexpr std::uint32_t RowsOf(std::uint32_t partition) {
    return kFixed + 2 * partition + 1;
}
} // namespace piece_stream

// The streams of a partition's file.
namespace partition_stream {
inline constexpr std::uint32_t kConflicts = 0; // one number
inline constexpr std::uint32_t kRows = 1;      // in ascending order
inline constexpr std::uint32_t kCount = 2;
} // namespace partition_stream

// Returns: the only item of a stream. Throws: Failure.
template <class Item>
Item OnlyItem(WorkFile const& file, std::uint32_t stream) {
    std::vector<Item> items;
    for (WorkBlock const& block : file.Blocks(stream)) {
        file.Read(block, items);
    }
    if (items.size() != 1) {
        file.ThrowDamaged();
    }
    return items.front();
}

inline PieceCounts CountsOf(WorkName const& piece) {
    return OnlyItem<PieceCounts>(WorkFile(piece), piece_stream::kCounts);
}

} // namespace crrecord::tool
