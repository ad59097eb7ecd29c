// The process-wide pools of handles and of references.

#pragma once

namespace crrecord {

// Chunks for one Cr_TRef (handle) and for one _cr_tref_t (value). A pool reuses the chunk that was returned last, and
// never releases memory to the system. Each call locks the pool's mutex.
//
// Returns: a chunk, or null if out of memory.
// Throws: TakeHandleChunk throws std::system_error if the mutex cannot be locked; the other functions end the process.
void* TakeHandleChunk();
void ReturnHandleChunk(void* chunk) noexcept;
void* TakeValueChunk() noexcept;
void ReturnValueChunk(void* chunk) noexcept;

} // namespace crrecord
