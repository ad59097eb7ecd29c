// Allocation of references and handles from the pool of the process.

#pragma once

#include <crrecord/references.h>

#include <array>

namespace crrecord {

// A chunk for one Cr_TRef or one _cr_tref_t. The pool reuses its memory, most recent first, and never returns it to the
// system. Each call locks the mutex of the pool; if that fails, TakeChunk throws std::system_error, and ReturnChunk,
// which must not throw, ends the process. Returns: the chunk, or null if memory is lacking.
void* TakeChunk();
void ReturnChunk(void* chunk) noexcept;

// Returns: a new handle that owns a copy of `reference`.
// Throws: std::bad_alloc; std::system_error as TakeChunk.
boost::intrusive_ptr<Cr_TRef> NewHandle(DOReference reference);

// The memory of a handle and its reference.
struct Chunks {
    void* handle;
    void* value;
};

// Makes handles with references, many of them with one lock of the mutex.
class HandleMaker {
public:
    HandleMaker() noexcept {} // leaves chunks_ uninitialised
    ~HandleMaker();
    HandleMaker(HandleMaker const&) = delete;
    HandleMaker& operator=(HandleMaker const&) = delete;

    // Makes a handle that owns a copy of `reference`. `expected` is the number of handles that will be made from now
    // on, this one included.
    // Returns: the handle, or null if memory for the reference is lacking.
    // Throws: std::bad_alloc if memory for the handle is lacking; std::system_error as TakeChunk.
    boost::intrusive_ptr<Cr_TRef> Make(DOReference reference, unsigned long expected);

private:
    void Refill(unsigned long expected);

    std::array<Chunks, 32> chunks_;
    unsigned int first_ = 0; // those from here to end_ are unused
    unsigned int end_ = 0;
};

} // namespace crrecord
