// Work on many pieces by several threads. Results are used in the order of the pieces.

#pragma once

#include <functional>
#include <future>
#include <vector>

namespace crrecord::tool {

// The calling thread fills pieces and uses the results. Pieces are reused, so memory is that of a few pieces.
template <class Piece>
class Pipeline {
public:
    using Step = std::function<void(Piece&)>;

    // `work` runs on other threads, unless `threads` is 1 or the system has no more of them.
    Pipeline(unsigned int threads, Step work, Step use)
        : work_(std::move(work)), use_(std::move(use)),
          policy_(threads > 1 ? std::launch::async | std::launch::deferred : std::launch::deferred),
          slots_(threads > 1 ? threads + 1 : 1) {}

    // Returns: a piece to fill. Throws: what `work` or `use` threw for an earlier piece.
    Piece& Next() {
        if (filled_ - used_ == slots_.size()) {
            UseOldest();
        }
        return At(filled_).piece;
    }

    // Starts the work on the piece that Next returned.
    void Submit() {
        Slot& slot = At(filled_++);
        slot.done = std::async(policy_, [this, &slot] { work_(slot.piece); });
    }

    // Waits for all pieces and uses them.
    void Finish() {
        while (used_ != filled_) {
            UseOldest();
        }
    }

private:
    struct Slot {
        Piece piece;
        std::future<void> done; // its destructor waits for the work
    };

    Slot& At(std::size_t number) { return slots_[number % slots_.size()]; }

    void UseOldest() {
        Slot& oldest = At(used_);
        oldest.done.get();
        use_(oldest.piece);
        ++used_;
    }

    Step work_;
    Step use_;
    std::launch policy_;
    std::size_t used_ = 0; // pieces in all
    std::size_t filled_ = 0;
    std::vector<Slot> slots_;
};

} // namespace crrecord::tool
