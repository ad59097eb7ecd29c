// The counted handle and the process-wide pool that its memory comes from.

#include "tref/value.h"

// The pool is given its mutex below; its default one would need another library.
#define BOOST_POOL_NO_MT
#include <boost/pool/singleton_pool.hpp>

#include <memory>
#include <mutex>
#include <new>

namespace {

struct Cr_TRef_Pool_Tag {};

constexpr unsigned kFirstBlockChunks = 32;

// Only the two operators below touch it, and they are exported functions, so one pool serves every library of the
// process. It is made before main starts and never destroyed: handles may be released until the very end.
using Pool = boost::singleton_pool<Cr_TRef_Pool_Tag, sizeof(Cr_TRef), boost::default_user_allocator_new_delete,
                                   std::mutex, kFirstBlockChunks, 0>;

struct ReferenceDeleter {
    void operator()(_cr_tref_t* reference) const noexcept { CRTRefDelete(&reference); }
};
using OwnedReference = std::unique_ptr<_cr_tref_t, ReferenceDeleter>;

_cr_tref_t* NewOrThrow(cr_reftype_t kind, unsigned long id) {
    _cr_tref_t* const made = CRTRefNew(kind, id);
    if (!made) {
        throw std::bad_alloc();
    }
    return made;
}

} // namespace

Cr_TRef::Cr_TRef(unsigned long taskId) : reference_(NewOrThrow(CR_REFTYPE_TASKID, taskId)), count_(0) {}

Cr_TRef::Cr_TRef(unsigned int dsid) : reference_(NewOrThrow(CR_REFTYPE_DSID, dsid)), count_(0) {}

Cr_TRef* Cr_TRef::Factory(_cr_tref_t const* reference) {
    OwnedReference copy(reference ? NewOrThrow(reference->kind, reference->id) : nullptr);
    Cr_TRef* const handle = new Cr_TRef(copy.get());
    copy.release();
    return handle;
}

void* Cr_TRef::operator new(std::size_t) {
    void* const chunk = Pool::malloc();
    if (!chunk) {
        throw std::bad_alloc();
    }
    return chunk;
}

void Cr_TRef::operator delete(void* chunk) noexcept {
    Pool::free(chunk);
}
