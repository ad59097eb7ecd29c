// Work on many items in several threads.

#pragma once

#include "io/signals.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace crrecord::tool {

// Calls work(item) for each item below `count`, from up to `threads` threads. Each thread has its own copy of `work`.
// Throws: the exception of a call of `work`. On failure: items that no thread has begun are skipped.
template <class Work>
void ForEachInParallel(unsigned int threads, unsigned int count, Work const& work) {
    std::atomic<unsigned int> next{0};
    std::mutex mutex;
    std::exception_ptr error;
    auto const run = [&] {
        try {
            Work own = work;
            for (unsigned int item = next++; item < count; item = next++) {
                own(item);
            }
        } catch (...) {
            std::lock_guard const lock(mutex);
            error = std::current_exception();
            next = count;
        }
    };
    {
        std::vector<std::jthread> helpers;
        try {
            // Signals go to the calling thread, which may have blocked them.
            EndersBlocked const blocked;
            for (unsigned int i = 1; i < std::min(threads, count); ++i) {
                helpers.emplace_back(run);
            }
        } catch (std::exception const&) {
            // The system has no more threads. The started ones do the work.
        }
        run();
    }
    if (error) {
        std::rethrow_exception(error);
    }
}

} // namespace crrecord::tool
