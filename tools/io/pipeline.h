// Work on many pieces by several threads. Results are used in the order of the pieces.

#pragma once

#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace crrecord::tool {

// The threads that use results. Only one at a time does so.
enum class UsedBy { CallingThread, AnyThread };

// The calling thread fills pieces. All threads work on pieces, the calling one when it would otherwise wait. Pieces are
// reused, so memory is that of a few pieces.
//
// The threads live as long as the pipeline: a new thread for each piece makes `build` measurably slower.
template <class Piece>
class Pipeline {
public:
    using Step = std::function<void(Piece&)>;

    // `threads` is the greatest number of threads. `work` may run for several pieces at a time unless it is 1.
    Pipeline(unsigned int threads, Step work, Step use, UsedBy usedBy = UsedBy::CallingThread)
        : work_(std::move(work)), use_(std::move(use)), anyThreadUses_(usedBy == UsedBy::AnyThread),
          slots_(threads > 1 ? 2 * threads + 1 : 1) {
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

    // Returns: a piece to fill. Throws: what `work` or `use` threw for an earlier piece; later pieces are not used.
    Piece& Next() {
        std::unique_lock lock(mutex_);
        while (filled_ - used_ == slots_.size()) {
            Proceed(lock);
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

    // Returns after all submitted pieces were used. Throws: the same as Next.
    void Finish() {
        std::unique_lock lock(mutex_);
        while (used_ != filled_) {
            Proceed(lock);
        }
    }

    // Returns after one more piece was used; false if there is none. Throws: the same as Next.
    bool FinishOne() {
        std::unique_lock lock(mutex_);
        std::size_t const before = used_;
        while (used_ == before && used_ != filled_) {
            Proceed(lock);
        }
        return used_ != before;
    }

private:
    struct Slot {
        Piece piece;
        bool done = false;
        std::exception_ptr error;
    };

    Slot& At(std::size_t number) { return slots_[number % slots_.size()]; }

    bool MayUse() { return !using_ && !error_ && used_ != filled_ && At(used_).done; }

    // One step of the calling thread.
    void Proceed(std::unique_lock<std::mutex>& lock) {
        if (error_) {
            std::rethrow_exception(error_);
        }
        if (MayUse()) {
            UseOldest(lock);
        } else if (taken_ != filled_) {
            WorkOnNext(lock);
        } else {
            finished_.wait(lock);
        }
    }

    void UseOldest(std::unique_lock<std::mutex>& lock) {
        Slot& oldest = At(used_);
        using_ = true;
        std::exception_ptr error = oldest.error;
        lock.unlock();
        try {
            if (!error) {
                use_(oldest.piece);
            }
        } catch (...) {
            error = std::current_exception();
        }
        lock.lock();
        using_ = false;
        error_ = error;
        if (!error) {
            oldest.done = false;
            ++used_;
        }
        NotifyUsers();
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
        NotifyUsers();
    }

    void NotifyUsers() {
        finished_.notify_one();
        if (anyThreadUses_ && MayUse()) {
            started_.notify_one();
        }
    }

    void Help() {
        std::unique_lock lock(mutex_);
        auto const mayUse = [this] { return anyThreadUses_ && MayUse(); };
        for (;;) {
            started_.wait(lock, [&] { return ending_ || taken_ != filled_ || mayUse(); });
            if (ending_) {
                return;
            }
            if (mayUse()) {
                UseOldest(lock);
            } else {
                WorkOnNext(lock);
            }
        }
    }

    Step work_;
    Step use_;
    bool anyThreadUses_;
    std::vector<Slot> slots_;

    std::mutex mutex_; // of the members below, and of `done` of submitted pieces
    std::condition_variable started_;
    std::condition_variable finished_;
    std::size_t filled_ = 0; // pieces in all
    std::size_t taken_ = 0;
    std::size_t used_ = 0;
    bool using_ = false; // a thread uses a piece
    std::exception_ptr error_;
    bool ending_ = false;
    std::vector<std::jthread> helpers_; // the last member: joined before the others are destroyed
};

} // namespace crrecord::tool
