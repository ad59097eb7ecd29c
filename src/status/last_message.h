// The last message of each thread.

#pragma once

#include <crrecord/status.h>

#include <cstddef>

namespace crrecord {

// Longest message with its NUL, in bytes.
inline constexpr std::size_t kMessageSize = Cr_ErrnoException::kMaxText + 1;

// Returns: the text that the calling thread set last, or "" if it has set none.
// Lifetime: until the thread sets another text or ends.
char const* LastMessage() noexcept;

// Copies `message`, at most kMessageSize bytes with its NUL, as the calling thread's last message.
void SetLastMessage(char const* message) noexcept;

} // namespace crrecord
