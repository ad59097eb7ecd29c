// The counted handle. Only operator new and operator delete use the pool. Both are exported functions, so
// all libraries of the process share one pool.

#include "tref/pool.h"
#include "tref/value.h"

#include <memory>
#include <new>

namespace {

struct ReferenceDeleter {
    void operator()(_cr_tref_t* reference) const noexcept { CRTRefDelete(&reference); }
};
using OwnedReference = std::unique_ptr<_cr_tref_t, ReferenceDeleter>;

_cr_tref_t* NewOrThrow(cr_reftype_t kind, unsigned long id) {
    _cr_tref_t* const reference = CRTRefNew(kind, id);
    if (!reference) {
        throw std::bad_alloc();
    }
    return reference;
}

} // namespace

Cr_TRef::Cr_TRef(unsigned long taskId) : reference_(NewOrThrow(CR_REFTYPE_TASKID, taskId)), count_(0) {}

Cr_TRef::Cr_TRef(unsigned int dsid) : reference_(NewOrThrow(CR_REFTYPE_DSID, dsid)), count_(0) {}

Cr_TRef* Cr_TRef::Factory(_cr_tref_t const* reference) {
    OwnedReference copy(reference ? NewOrThrow(reference->kind, reference->id) : nullptr);
    Cr_TRef* const handle = new Cr_TRef(copy.get());
    static_cast<void>(copy.release());
    return handle;
}

void* Cr_TRef::operator new(std::size_t) {
    void* const chunk = crrecord::TakeChunk();
    if (!chunk) {
        throw std::bad_alloc();
    }
    return chunk;
}

void Cr_TRef::operator delete(void* chunk) noexcept {
    crrecord::ReturnChunk(chunk);
}
