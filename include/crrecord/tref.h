// Typed references, which keep an object alive: the value, its operations, and the counted handle that records hold.
//
// A reference is a kind from 0 to 10 and an id of 64 bits, or 32 bits for CR_REFTYPE_DSID. References are ordered by
// kind, then by id. The serialized form is the kind (1 byte), the length of the id (1 byte) and the id, big-endian (4
// bytes for CR_REFTYPE_DSID, 8 for every other kind). The text form is "task:17" for CR_REFTYPE_TASKID, "dsid:5" for
// CR_REFTYPE_DSID and "ref6:9" for kind 6 and so on, ended by a NUL.
//
// Errors: functions that fail return null and store the reason in this thread's last status (status.h).
//
// Memory: references and handles come from one pool that all libraries of the process share. It keeps its memory for
// later use and never returns it to the system. The sets of a record take their nodes from the record
// (reference_nodes.h). dlclose leaves the shared library loaded, since handles that are still held are in its pool.
//
// Thread safety: one mutex guards the pool. Each allocation and each release locks it; a record that loads references
// locks it once for up to 32 of them. The count of a handle is a plain integer: one thread at a time uses a handle. A
// child of fork() may make and release handles, whatever the other threads of its parent did.

#pragma once

#include <crrecord/export.h>
#include <crrecord/reader.h>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include <cstddef>
#include <utility>

// Kinds of references; the other kinds from 0 to 10 have no names. Records store these values, so they never change.
enum cr_reftype_t : int {
    CR_REFTYPE_TASKID = 2,                // a task; the id has 64 bits
    CR_REFTYPE_DSID = CRR_REFERENCE_DSID, // a data selection; the id has 32 bits
    CR_REFTYPE_END = CRR_REFERENCE_KINDS, // one past the last kind
};

// Forms of a reference. Every function takes any other number for CR_TREF_SERIALIZED.
inline constexpr int CR_TREF_TEXT = 0;
inline constexpr int CR_TREF_SERIALIZED = 1;
// Bytes that the text form of any reference fits in, with its NUL.
inline constexpr unsigned long CR_TREF_TEXT_SIZE = 99;

// One reference; opaque. Only the functions below make and release one.
struct _cr_tref_t;

// Makes a reference.
// Returns: the reference; or null with CR_STATUS_INVALID for a kind outside 0 to 10 or an id of CR_REFTYPE_DSID beyond
// 32 bits, or with CR_STATUS_NO_MEMORY.
// Lifetime: the caller releases it with CRTRefDelete, or passes it to a handle.
CRRECORD_API _cr_tref_t* CRTRefNew(cr_reftype_t kind, unsigned long id) noexcept;

// Reads one reference in a form from the start of `available` bytes, and nothing after them. `*consumed`, unless
// `consumed` is null, becomes the number of bytes read; for the text form, which ends at a NUL or at the last byte,
// without the NUL.
// Returns: the reference; or null with CR_STATUS_CORRUPT_RECORD for null, a kind above 10, a wrong length of the id,
// too few bytes or a text that is not a reference's, or with CR_STATUS_NO_MEMORY.
// On failure: *consumed is 0.
// Lifetime: as CRTRefNew.
CRRECORD_API _cr_tref_t* CRTRefNewDeserialize(void const* source, unsigned long available, int form,
                                              unsigned long* consumed) noexcept;

// Releases *reference and sets it to null. Both pointers may be null.
CRRECORD_API void CRTRefDelete(_cr_tref_t** reference) noexcept;

// Kind and id. CRTRefGetTaskID is for a reference of CR_REFTYPE_TASKID; it does not check the kind.
// Precondition: here and below a reference is not null, unless stated otherwise.
CRRECORD_API cr_reftype_t CRTRefGetType(_cr_tref_t const* reference) noexcept;
CRRECORD_API unsigned long CRTRefGetID(_cr_tref_t const* reference) noexcept;
CRRECORD_API unsigned long CRTRefGetTaskID(_cr_tref_t const* reference) noexcept;

// CRTRefCompare returns a negative number, 0 or a positive number: a total order by kind, then by id. CRTRefEqual
// returns non-zero if both are equal.
CRRECORD_API int CRTRefCompare(_cr_tref_t const* a, _cr_tref_t const* b) noexcept;
CRRECORD_API int CRTRefEqual(_cr_tref_t const* a, _cr_tref_t const* b) noexcept;

// Returns: bytes of the reference in a form, including the NUL of the text form.
CRRECORD_API unsigned long CRTRefSerializedSize(_cr_tref_t const* reference, int form) noexcept;

// Writes a reference in a form into `available` bytes.
// Returns: the bytes written, without the NUL of the text form; 0, with nothing written, if they do not fit.
CRRECORD_API unsigned long CRTRefSerialize(void* destination, unsigned long available, _cr_tref_t const* reference,
                                           int form) noexcept;

// Writes the text form with its NUL into the `size` bytes of `text`, cut if they are too few, or "null" for a null
// reference.
// Returns: `text`, which may be null; with null or a `size` of 0 it writes nothing.
CRRECORD_API char* CRTRefToString(char* text, unsigned long size, _cr_tref_t const* reference) noexcept;

// A counted handle that owns one reference. Allocate it with new or Factory and hold it in a boost::intrusive_ptr: the
// last holder deletes it. A handle takes a 16-byte chunk of the pool, so no class may derive from it.
class Cr_TRef final {
public:
    // Takes ownership of `reference`, which may be null for an empty handle.
    explicit Cr_TRef(_cr_tref_t* reference) noexcept : reference_(reference), count_(0) {}
    // A reference of CR_REFTYPE_TASKID and of CR_REFTYPE_DSID.
    // Throws: std::bad_alloc.
    CRRECORD_API explicit Cr_TRef(unsigned long taskId);
    CRRECORD_API explicit Cr_TRef(unsigned int dsid);
    ~Cr_TRef() { CRTRefDelete(&reference_); }
    Cr_TRef(Cr_TRef const&) = delete;
    Cr_TRef& operator=(Cr_TRef const&) = delete;

    // Makes a handle with a copy of `reference`, or an empty handle for null.
    // Returns: the handle, never null, with a count of 0.
    // Throws: std::bad_alloc.
    CRRECORD_API static Cr_TRef* Factory(_cr_tref_t const* reference);

    // Returns: the reference, or null for an empty handle.
    // Lifetime: until the handle is deleted.
    _cr_tref_t const* Get() const noexcept { return reference_; }

    // Takes a chunk of the pool.
    // Throws: std::bad_alloc; std::system_error if its mutex cannot be locked.
    CRRECORD_API static void* operator new(std::size_t size);
    // Returns the chunk to the pool. `chunk` is not null.
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

// An element of an ordered set of handles to references of one kind: a handle with a copy of the id of its reference.
// A search in the set compares the copies and reads no handle.
class Cr_TRefEntry : public boost::intrusive_ptr<Cr_TRef> {
public:
    // Precondition: the handle is neither null nor empty.
    Cr_TRefEntry(boost::intrusive_ptr<Cr_TRef> handle) noexcept
        : boost::intrusive_ptr<Cr_TRef>(std::move(handle)), id_(CRTRefGetID(get()->Get())) {}
    // A key to search for, without a handle.
    explicit Cr_TRefEntry(unsigned long id) noexcept : id_(id) {}

    unsigned long Id() const noexcept { return id_; }

private:
    unsigned long id_;
};

// Orders handles by their references, and elements of a set, which are of one kind, by their ids.
// Precondition: no handle is null or empty.
struct Cr_TRefComparator {
    bool operator()(boost::intrusive_ptr<Cr_TRef> const& a, boost::intrusive_ptr<Cr_TRef> const& b) const noexcept {
        return CRTRefCompare(a->Get(), b->Get()) < 0;
    }
    bool operator()(Cr_TRefEntry const& a, Cr_TRefEntry const& b) const noexcept { return a.Id() < b.Id(); }
};
