// Work on many pieces by several threads, in the order in which the pieces come.

#pragma once

#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace crrecord::tool {

// One thread fills pieces and uses them in the same order; in between any thread works on them, that one too where it
// would have to wait. Pieces are used again, so memory stays what a few of them take.
template <class Piece>
class Pipeline {
public:
    using Step = std::function<void(Piece&)>;

    // `work` may run for several pieces at a time, unless `threads`, the most that are taken, is 1.
    Pipeline(unsigned int threads, Step work, Step use)
        : work_(std::move(work)), use_(std::move(use)), slots_(threads > 1 ? 2 * threads + 1 : 1) {
        try {
            for (unsigned int i = 1; i < threads; ++i) {
                helpers_.emplace_back([this] { Help(); });
            }
        } catch (std::exception const&) {
            // No more are to be had: those that there are do the work.
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

    // A piece to fill. Throws what work or use threw for an earlier one.
    Piece& Next() {
        while (filled_ - used_ == slots_.size()) {
            UseOldest();
        }
        return At(filled_).piece;
    }

    // Hands in the piece that Next gave.
    void Submit() {
        {
            std::lock_guard const lock(mutex_);
            ++filled_;
        }
        started_.notify_one();
    }

    // Until all that were handed in are used.
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
    std::size_t used_ = 0; // pieces in all; only the thread that fills them looks at it

    std::mutex mutex_; // of what follows, and of `done` of pieces that were handed in
    std::condition_variable started_;
    std::condition_variable finished_;
    std::size_t filled_ = 0;
    std::size_t taken_ = 0;
    bool ending_ = false;
    std::vector<std::jthread> helpers_; // joined before anything else goes
};

} // namespace crrecord::tool
