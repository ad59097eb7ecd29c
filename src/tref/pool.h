// The pools of the process that handles and references come from.

#pragma once

namespace crrecord {

// Chunks for one Cr_TRef and for one _cr_tref_t. Null without memory. Memory of a pool is used again, most recent
// first, and never handed back. Each call locks the pool's mutex; where it can't be locked, taking a handle's chunk
// throws std::system_error, and the others, which may not throw, end the process.
void* TakeHandleChunk();
void ReturnHandleChunk(void* chunk) noexcept;
void* TakeValueChunk() noexcept;
void ReturnValueChunk(void* chunk) noexcept;

} // namespace crrecord
