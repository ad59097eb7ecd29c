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
    return static_cast<std::uint32_t>(HashOfSegment(segment.fingerprint.data, segment.fingerprint.size, segment.size));
}

class Matcher {
public:
    Matcher(PlacedSegments const& a, PlacedSegments const& b, UseMatch const& use)
        : a_(a), b_(b), use_(use), matchedA_(a.size()), matchedB_(b.size()) {}

    // The positions of both objects ascend. A position has any number of empty segments, then one that is not empty.
    // Empty ones are compared in their order.
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

    // Queues the unmatched segments of A by fingerprint and size. Each one of B matches the first in its queue.
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
        auto const unmatched = [](PlacedSegments const& segments, std::vector<bool> const& matched, auto use) {
            for (std::uint32_t i = 0; i < segments.size(); ++i) {
                if (!matched[i]) {
                    PlacedSegment const segment = segments[i];
                    use(&segment);
                }
            }
        };
        unmatched(a_, matchedA_, [this](PlacedSegment const* removed) { use_(Fate::Removed, removed, nullptr); });
        unmatched(b_, matchedB_, [this](PlacedSegment const* added) { use_(Fate::Added, nullptr, added); });
    }

private:
    // Equal unmatched segments of A, in their order.
    struct Queue {
        std::uint32_t example; // one of them, which never changes
        std::uint32_t first;
        std::uint32_t hash; // saves reading the record
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

bool MatchRun::Extend(Fate with, PlacedSegment const* inA, PlacedSegment const* inB) {
    auto const follows = [this](std::optional<PlacedSegment> const& first, PlacedSegment const* next) {
        return first.has_value() == (next != nullptr) && (!next || next->index == first->index + segments);
    };
    if (segments == 0 || with != fate || !follows(a, inA) || !follows(b, inB)) {
        return false;
    }
    bool const isOneShift = with != Fate::Moved || inB->position - inA->position == b->position - a->position;
    bool const isOneMove =
        with != Fate::Shared || (inA->segment.dcid == a->segment.dcid && inB->segment.dcid == b->segment.dcid);
    if (!isOneShift || !isOneMove) {
        return false;
    }
    ++segments;
    bytes += (inA ? inA : inB)->segment.size;
    return true;
}

} // namespace crrecord::tool
