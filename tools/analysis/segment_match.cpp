#include "analysis/segment_match.h"

#include "analysis/hash_table.h"

#include <cstring>

namespace crrecord::tool {

namespace {

constexpr std::uint32_t kNoSegment = std::numeric_limits<std::uint32_t>::max();

bool AreSame(DOSegment const& a, DOSegment const& b) noexcept {
    return a.size == b.size && a.fingerprint == b.fingerprint;
}

std::uint32_t HashOf(DOSegment const& segment) {
    return static_cast<std::uint32_t>(
        HashOfSegment(segment.fingerprint.data, segment.fingerprint.size, segment.size));
}

class Matcher {
public:
    Matcher(PlacedSegments const& a, PlacedSegments const& b, UseMatch const& use)
        : a_(a), b_(b), use_(use), matchedA_(a.size()), matchedB_(b.size()) {}

    // Both objects' positions ascend. At one position there is one segment that is not empty, behind any empty ones; of
    // empty ones the first is compared with the first, and so on.
    void MatchInPlace() {
        for (std::uint32_t i = 0, j = 0; i < a_.size() && j < b_.size();) {
            if (a_.PositionOf(i) != b_.PositionOf(j)) {
                ++(a_.PositionOf(i) < b_.PositionOf(j) ? i : j);
                continue;
            }
            PlacedSegment const inA = a_[i];
            PlacedSegment const inB = b_[j];
            if (AreSame(inA.segment, inB.segment)) {
                Match(i, inA, j, inB);
            }
            bool const aWaits = inA.segment.size != 0 && inB.segment.size == 0;
            bool const bWaits = inB.segment.size != 0 && inA.segment.size == 0;
            i += aWaits ? 0 : 1;
            j += bWaits ? 0 : 1;
        }
    }

    // What is unmatched in A is queued by what it is, and each of B takes the first of its queue.
    void MatchElsewhere() {
        std::vector<std::uint32_t> next(a_.size());
        HashTable<Queue, HashOfQueue> queues;
        auto const find = [&](DOSegment const& segment, std::uint32_t hash) {
            return queues.Find(hash, [&](Queue const& queue) {
                return queue.hash == hash && AreSame(a_[queue.example].segment, segment);
            });
        };
        for (std::uint32_t i = a_.size(); i-- != 0;) {
            if (matchedA_[i]) {
                continue;
            }
            DOSegment const segment = a_[i].segment;
            std::uint32_t const hash = HashOf(segment);
            Queue* const found = find(segment, hash);
            Queue& queue = found ? *found : queues.Add(hash, {i, kNoSegment, hash});
            next[i] = std::exchange(queue.first, i);
        }
        for (std::uint32_t j = 0; j < b_.size(); ++j) {
            if (matchedB_[j]) {
                continue;
            }
            PlacedSegment const inB = b_[j];
            Queue* const queue = find(inB.segment, HashOf(inB.segment));
            if (queue && queue->first != kNoSegment) {
                std::uint32_t const i = std::exchange(queue->first, next[queue->first]);
                Match(i, a_[i], j, inB);
            }
        }
    }

    void UseUnmatched() {
        for (std::uint32_t i = 0; i < a_.size(); ++i) {
            if (!matchedA_[i]) {
                PlacedSegment const removed = a_[i];
                use_(Fate::Removed, &removed, nullptr);
            }
        }
        for (std::uint32_t j = 0; j < b_.size(); ++j) {
            if (!matchedB_[j]) {
                PlacedSegment const added = b_[j];
                use_(Fate::Added, nullptr, &added);
            }
        }
    }

private:
    // The unmatched segments of A that are the same, in their order.
    struct Queue {
        std::uint32_t example; // one of them, for good
        std::uint32_t first;
        std::uint32_t hash; // spares looking at the record
    };
    struct HashOfQueue {
        std::uint64_t operator()(Queue const& queue) const { return queue.hash; }
    };

    void Match(std::uint32_t i, PlacedSegment const& inA, std::uint32_t j, PlacedSegment const& inB) {
        matchedA_[i] = true;
        matchedB_[j] = true;
        use_(inA.position == inB.position ? Fate::Shared : Fate::Moved, &inA, &inB);
    }

    PlacedSegments const& a_;
    PlacedSegments const& b_;
    UseMatch const& use_;
    std::vector<bool> matchedA_;
    std::vector<bool> matchedB_;
};

} // namespace

PlacedSegments::PlacedSegments(DORecord const& record) : segments_(record.Segments()), fptype_(record.GetFPType()) {
    positions_.reserve(segments_.size());
    ForEachSegment(segments_, record.GetDOType(), segments_.size(),
                   [this](auto, std::uint64_t position, auto const&) { positions_.push_back(position); });
}

void MatchSegments(PlacedSegments const& a, PlacedSegments const& b, UseMatch const& use) {
    Matcher matcher(a, b, use);
    if (a.FPType() == b.FPType()) {
        matcher.MatchInPlace();
        matcher.MatchElsewhere();
    }
    matcher.UseUnmatched();
}

} // namespace crrecord::tool
