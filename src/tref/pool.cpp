#include "tref/pool.h"

#include "base/fork_safe_mutex.h"
#include "tref/value.h"

// The pools use the mutex given below; the default one needs another Boost library.
#define BOOST_POOL_NO_MT
#include <boost/pool/singleton_pool.hpp>

namespace crrecord {

namespace {

struct Cr_TRef_Pool_Tag {};
struct ValuePoolTag {};

constexpr unsigned kFirstBlockChunks = 32;

// Boost creates the pools before main and never destroys them: handles may be released until the process ends. Values
// have a separate pool, so that values created one after another are adjacent in memory.
template <class Tag, class T>
using PoolOf = boost::singleton_pool<Tag, sizeof(T), boost::default_user_allocator_new_delete, ForkSafeMutex<Tag>,
                                     kFirstBlockChunks, 0>;
using HandlePool = PoolOf<Cr_TRef_Pool_Tag, Cr_TRef>;
using ValuePool = PoolOf<ValuePoolTag, _cr_tref_t>;

} // namespace

void* TakeHandleChunk() {
    return HandlePool::malloc();
}

void ReturnHandleChunk(void* chunk) noexcept {
    HandlePool::free(chunk);
}

void* TakeValueChunk() noexcept {
    return ValuePool::malloc();
}

void ReturnValueChunk(void* chunk) noexcept {
    ValuePool::free(chunk);
}

} // namespace crrecord
