// Work on many pieces by several threads. Results are used in the order of the pieces.

#pragma once

#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace crrecord::tool {

// The calling thread fills pieces and uses the results. All threads work on pieces, the calling one when it would
// otherwise wait. Pieces are reused, so memory is that of a few pieces.
//
// The threads live as long as the pipeline: a new thread for each piece makes `build` measurably slower.
template <class Piece>
class Pipeline {
public:
    using Step = std::function<void(Piece&)>;

    // `threads` is the greatest number of threads. `work` may run for several pieces at a time unless it is 1.
    Pipeline(unsigned int threads, Step work, Step use)
        : work_(std::move(work)), use_(std::move(use)), slots_(threads > 1 ? 2 * threads + 1 : 1) {
        try {
            for (unsigned int i = 1; i < threads; ++i) {
                helpers_.emplace_back([this] { Help(); });
            }
        } catch (std::exception const&) {
            // The system has no more threads. Those that were started do the work.
        }
    }

    ~Pipeline() {
        {
            std::lock_guard const lock(mutex_);
            ending_ = true;
        }
        started_.notify_all();
    }

    Pipeline(Pipeline const&) = delete;
    Pipeline& operator=(Pipeline const&) = delete;

    // Returns: a piece to fill. Throws: what `work` or `use` threw for an earlier piece.
    Piece& Next() {
        while (filled_ - used_ == slots_.size()) {
            UseOldest();
        }
        return At(filled_).piece;
    }

    // Submits the piece that Next returned.
    void Submit() {
        {
            std::lock_guard const lock(mutex_);
            ++filled_;
        }
        started_.notify_one();
    }

    // Returns after all submitted pieces were used.
    void Finish() {
        while (used_ != filled_) {
            UseOldest();
        }
    }

private:
    struct Slot {
        Piece piece;
        bool done = false;
        std::exception_ptr error;
    };

    Slot& At(std::size_t number) { return slots_[number % slots_.size()]; }

    void UseOldest() {
        Slot& oldest = At(used_);
        {
            std::unique_lock lock(mutex_);
            while (!oldest.done) {
                if (taken_ != filled_) {
                    WorkOnNext(lock);
                } else {
                    finished_.wait(lock);
                }
            }
        }
        if (oldest.error) {
            std::rethrow_exception(oldest.error);
        }
        use_(oldest.piece);
        oldest.done = false;
        ++used_;
    }

    void WorkOnNext(std::unique_lock<std::mutex>& lock) {
        Slot& slot = At(taken_++);
        lock.unlock();
        try {
            work_(slot.piece);
        } catch (...) {
            slot.error = std::current_exception();
        }
        lock.lock();
        slot.done = true;
        finished_.notify_one();
    }

    void Help() {
        std::unique_lock lock(mutex_);
        for (;;) {
            started_.wait(lock, [this] { return ending_ || taken_ != filled_; });
            if (ending_) {
                return;
            }
            WorkOnNext(lock);
        }
    }

    Step work_;
    Step use_;
    std::vector<Slot> slots_;
    std::size_t used_ = 0; // pieces in all; only for the calling thread

    std::mutex mutex_; // of the members below, and of `done` of submitted pieces
    std::condition_variable started_;
    std::condition_variable finished_;
    std::size_t filled_ = 0;
    std::size_t taken_ = 0;
    bool ending_ = false;
    std::vector<std::jthread> helpers_; // the last member: joined before the others are destroyed
};

} // namespace crrecord::tool
