#include "tref/pool.h"

#include "base/fork_safe_mutex.h"
#include "tref/value.h"

#include <algorithm>
#include <mutex>

// The functions below lock the mutex; the pools' own default one would need another library.
#define BOOST_POOL_NO_MT
#include <boost/pool/singleton_pool.hpp>

namespace crrecord {

namespace {

struct Cr_TRef_Pool_Tag {};
struct ValuePoolTag {};

constexpr unsigned kFirstBlockChunks = 32;

// Made before main starts, and never destroyed: handles may be released until the very end. Values have a pool of their
// own, so that consecutive references are consecutive in memory.
template <class Tag, class T>
using PoolOf = boost::singleton_pool<Tag, sizeof(T), boost::default_user_allocator_new_delete,
                                     boost::details::pool::null_mutex, kFirstBlockChunks, 0>;
using HandlePool = PoolOf<Cr_TRef_Pool_Tag, Cr_TRef>;
using ValuePool = PoolOf<ValuePoolTag, _cr_tref_t>;

// Guards both pools.
using PoolMutex = ForkSafeMutex<Cr_TRef_Pool_Tag>;
constinit PoolMutex poolMutex;
using Lock = std::lock_guard<PoolMutex>;

} // namespace

void* TakeHandleChunk() {
    Lock const lock(poolMutex);
    return HandlePool::malloc();
}

void ReturnHandleChunk(void* chunk) noexcept {
    Lock const lock(poolMutex);
    HandlePool::free(chunk);
}

void* TakeValueChunk() noexcept {
    Lock const lock(poolMutex);
    return ValuePool::malloc();
}

void ReturnValueChunk(void* chunk) noexcept {
    Lock const lock(poolMutex);
    ValuePool::free(chunk);
}

// Returned in the reverse order, so that the pools lend them in the same order again.
HandleMaker::~HandleMaker() {
    if (first_ == end_) {
        return;
    }
    Lock const lock(poolMutex);
    while (end_ != first_) {
        --end_;
        HandlePool::free(chunks_[end_].handle);
        ValuePool::free(chunks_[end_].value);
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
        void* const value = ValuePool::malloc();
        if (!value) {
            return;
        }
        void* const handle = HandlePool::malloc();
        if (!handle) {
            ValuePool::free(value);
            if (end_ == 0) {
                throw std::bad_alloc();
            }
            return;
        }
        chunks_[end_] = {handle, value};
    }
}

} // namespace crrecord
