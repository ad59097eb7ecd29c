#include "tref/pool.h"

#include "base/fork_safe_mutex.h"
#include "tref/value.h"

#include <algorithm>
#include <mutex>

// The functions below lock the mutex; the pool's own default one would need another library.
#define BOOST_POOL_NO_MT
#include <boost/pool/singleton_pool.hpp>

namespace crrecord {

namespace {

struct Cr_TRef_Pool_Tag {};

constexpr unsigned kFirstBlockChunks = 32;

// Made before main starts, and never destroyed: handles may be released until the very end. A handle and its value are
// taken one after the other, so that they are neighbours: callers who read a reference read both.
using Pool = boost::singleton_pool<Cr_TRef_Pool_Tag, sizeof(Cr_TRef), boost::default_user_allocator_new_delete,
                                   boost::details::pool::null_mutex, kFirstBlockChunks, 0>;
static_assert(sizeof(_cr_tref_t) == sizeof(Cr_TRef) && alignof(_cr_tref_t) <= alignof(Cr_TRef));

using PoolMutex = ForkSafeMutex<Cr_TRef_Pool_Tag>;
constinit PoolMutex poolMutex;
using Lock = std::lock_guard<PoolMutex>;

} // namespace

void* TakeChunk() {
    Lock const lock(poolMutex);
    return Pool::malloc();
}

void ReturnChunk(void* chunk) noexcept {
    Lock const lock(poolMutex);
    Pool::free(chunk);
}

// Returned in the reverse order, so that the pool lends them in the same order again.
HandleMaker::~HandleMaker() {
    if (first_ == end_) {
        return;
    }
    Lock const lock(poolMutex);
    while (end_ != first_) {
        --end_;
        Pool::free(chunks_[end_].handle);
        Pool::free(chunks_[end_].value);
    }
}

boost::intrusive_ptr<Cr_TRef> HandleMaker::Make(DOReference reference, unsigned long expected) {
    if (first_ == end_) {
        Refill(expected);
    }
    if (first_ == end_) {
        return nullptr;
    }
    auto const [handle, value] = chunks_[first_++];
    return ::new (handle) Cr_TRef(::new (value) _cr_tref_t{reference.id, reference.kind});
}

void HandleMaker::Refill(unsigned long expected) {
    first_ = end_ = 0;
    unsigned long const wanted = std::clamp(expected, 1ul, chunks_.size());
    Lock const lock(poolMutex);
    for (; end_ < wanted; ++end_) {
        void* const value = Pool::malloc();
        if (!value) {
            return;
        }
        void* const handle = Pool::malloc();
        if (!handle) {
            Pool::free(value);
            if (end_ == 0) {
                throw std::bad_alloc();
            }
            return;
        }
        chunks_[end_] = {handle, value};
    }
}

} // namespace crrecord
