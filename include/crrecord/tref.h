// Typed references: what keeps an object alive. The value, its operations, and the counted handle that records hold.
//
// A reference is a kind and an id. It is ordered by kind, then by id. Its serialized form (form 1) is the kind (1
// byte), the length of the id (1 byte) and the id big-endian, 4 bytes for kind 4 and 8 for every other kind. Its text
// form (form 0) is "task:17" for kind 2, "dsid:5" for kind 4 and "ref6:9" for any other, ended by a NUL.
//
// Functions that fail return null and leave the reason in this thread's last status (status.h).
//
// Threads: the pool that handles come from is shared by every library of the process and locked for each allocation
// and each return. The count of a handle is a plain integer: a handle belongs to one thread at a time. A child of fork()
// may make and release handles, whatever the other threads of its parent did.
//
// Lifetime: dlclose leaves the shared library loaded, since handles that are still held are in its pool.

#pragma once

#include <crrecord/export.h>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include <cstddef>

enum cr_reftype_t : int {
    CR_REFTYPE_TASKID = 2, // a task; the id has 64 bits
    CR_REFTYPE_DSID = 4,   // a data selection; the id has 32 bits
    CR_REFTYPE_END = 11,   // one past the last kind
};

inline constexpr int CR_TREF_TEXT = 0;
inline constexpr int CR_TREF_SERIALIZED = 1;
// Longest text of a reference with its NUL fits well.
inline constexpr unsigned long CR_TREF_TEXT_SIZE = 99;

// One reference; opaque. Made and released by the functions below and by nothing else.
struct _cr_tref_t;

// A new reference of a kind from 0 to 10. Null with status 9 for another kind or for an id of kind 4 beyond 32 bits,
// with status 22 without memory.
CRRECORD_API _cr_tref_t* CRTRefNew(cr_reftype_t kind, unsigned long id) noexcept;

// Reads one reference from the front of `available` bytes and sets *consumed to the bytes that it took. Null with
// status 32 for a kind above 10, a wrong length, a short input or, in text form, anything but the text of a reference
// up to a NUL or the end; 22 without memory; then *consumed is 0. Reads nothing behind `available`.
CRRECORD_API _cr_tref_t* CRTRefNewDeserialize(void const* source, unsigned long available, int form,
                                              unsigned long* consumed) noexcept;

// Releases *reference and sets it to null; null pointers are allowed.
CRRECORD_API void CRTRefDelete(_cr_tref_t** reference) noexcept;

// The references given to these are not null.
CRRECORD_API cr_reftype_t CRTRefGetType(_cr_tref_t const* reference) noexcept;
CRRECORD_API unsigned long CRTRefGetID(_cr_tref_t const* reference) noexcept;
CRRECORD_API unsigned long CRTRefGetTaskID(_cr_tref_t const* reference) noexcept; // the id of a kind-2 reference

// Negative, zero or positive: a total order, by kind and then by id. Zero means equal.
CRRECORD_API int CRTRefCompare(_cr_tref_t const* a, _cr_tref_t const* b) noexcept;
CRRECORD_API int CRTRefEqual(_cr_tref_t const* a, _cr_tref_t const* b) noexcept;

// Bytes of a reference in a form; those of the text form count its NUL.
CRRECORD_API unsigned long CRTRefSerializedSize(_cr_tref_t const* reference, int form) noexcept;

// Writes a reference into `room` bytes and returns the bytes written, without the NUL of the text form. With too
// little room it writes nothing and returns 0.
CRRECORD_API unsigned long CRTRefSerialize(void* destination, unsigned long room, _cr_tref_t const* reference,
                                           int form) noexcept;

// Writes the text form into `size` bytes, cut where they are too few, and returns `text`. A null reference has the text
// "null".
CRRECORD_API char* CRTRefToString(char* text, unsigned long size, _cr_tref_t const* reference) noexcept;

// A handle: owns one reference and counts those who hold the handle. Made with new (or Factory) only, and held by
// boost::intrusive_ptr. The memory is a 16-byte chunk of the pool, which keeps it for later handles; a derived class
// would need a larger one.
class Cr_TRef final {
public:
    // Takes ownership.
    explicit Cr_TRef(_cr_tref_t* reference) noexcept : reference_(reference), count_(0) {}
    // A task-id (kind 2) or data-selection (kind 4) reference. Throw std::bad_alloc.
    CRRECORD_API explicit Cr_TRef(unsigned long taskId);
    CRRECORD_API explicit Cr_TRef(unsigned int dsid);
    ~Cr_TRef() { CRTRefDelete(&reference_); }
    Cr_TRef(Cr_TRef const&) = delete;
    Cr_TRef& operator=(Cr_TRef const&) = delete;

    // A new handle, held by nobody yet, with a copy of the reference; an empty handle for null. Never null; throws
    // std::bad_alloc.
    CRRECORD_API static Cr_TRef* Factory(_cr_tref_t const* reference);

    // Null for an empty handle.
    _cr_tref_t const* Get() const noexcept { return reference_; }

    // A chunk of the pool; throws std::bad_alloc.
    CRRECORD_API static void* operator new(std::size_t size);
    // Returns the chunk. A mutex that can't be locked ends the process. Not for null.
    CRRECORD_API static void operator delete(void* chunk) noexcept;

private:
    friend void intrusive_ptr_add_ref(Cr_TRef* handle) noexcept { ++handle->count_; }
    friend void intrusive_ptr_release(Cr_TRef* handle) noexcept {
        if (--handle->count_ == 0) {
            delete handle;
        }
    }

    _cr_tref_t* reference_;
    unsigned long count_;
};
static_assert(sizeof(Cr_TRef) == 16);

// Orders handles by their references; none of them is empty.
struct Cr_TRefComparator {
    bool operator()(boost::intrusive_ptr<Cr_TRef> const& a, boost::intrusive_ptr<Cr_TRef> const& b) const noexcept {
        return CRTRefCompare(a->Get(), b->Get()) < 0;
    }
};
