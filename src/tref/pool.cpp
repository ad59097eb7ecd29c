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

// Made before main starts, and never destroyed: handles may be released until the very end.
using Pool = boost::singleton_pool<Cr_TRef_Pool_Tag, sizeof(Cr_TRef), boost::default_user_allocator_new_delete,
                                   boost::details::pool::null_mutex, kFirstBlockChunks, 0>;
static_assert(sizeof(_cr_tref_t) == sizeof(Cr_TRef) && alignof(_cr_tref_t) <= alignof(Cr_TRef));

using PoolMutex = ForkSafeMutex<Cr_TRef_Pool_Tag>;
constinit PoolMutex poolMutex;
using Lock = std::lock_guard<PoolMutex>;

// Takes the chunks of a handle and its value one after the other, so that they are neighbours: callers who read a
// reference read both. Precondition: the caller has locked the mutex.
// On failure: no chunk is taken. `handle` is null. `value` is null if memory for the value is lacking, and otherwise a
// sign, which must not be used.
Chunks TakeChunks() {
    void* const value = Pool::malloc();
    void* const handle = value ? Pool::malloc() : nullptr;
    if (value && !handle) {
        Pool::free(value);
    }
    return {handle, value};
}

boost::intrusive_ptr<Cr_TRef> MakeIn(Chunks chunks, DOReference reference) noexcept {
    return ::new (chunks.handle) Cr_TRef(::new (chunks.value) _cr_tref_t{reference.id, reference.kind});
}

} // namespace

void* TakeChunk() {
    Lock const lock(poolMutex);
    return Pool::malloc();
}

void ReturnChunk(void* chunk) noexcept {
    Lock const lock(poolMutex);
    Pool::free(chunk);
}

boost::intrusive_ptr<Cr_TRef> NewHandle(DOReference reference) {
    Chunks chunks{};
    {
        Lock const lock(poolMutex);
        chunks = TakeChunks();
    }
    if (!chunks.handle) {
        throw std::bad_alloc();
    }
    return MakeIn(chunks, reference);
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
    return MakeIn(chunks_[first_++], reference);
}

void HandleMaker::Refill(unsigned long expected) {
    first_ = end_ = 0;
    unsigned long const wanted = std::clamp(expected, 1ul, chunks_.size());
    Lock const lock(poolMutex);
    for (; end_ < wanted; ++end_) {
        Chunks const chunks = TakeChunks();
        if (!chunks.handle) {
            if (chunks.value && end_ == 0) {
                throw std::bad_alloc();
            }
            return;
        }
        chunks_[end_] = chunks;
    }
}

} // namespace crrecord
