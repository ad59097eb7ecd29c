// The last message of each thread.

#pragma once

#include <crrecord/status.h>

#include <cstddef>

namespace crrecord {

// Longest message with its NUL, in bytes.
inline constexpr std::size_t kMessageSize = Cr_ErrnoException::kMaxText + 1;

// The text that the calling thread set last; "" before its first. Valid until the thread sets another one or ends.
char const* LastMessage() noexcept;

// Copies `message`, at most kMessageSize bytes, as the calling thread's last one.
void SetLastMessage(char const* message) noexcept;

} // namespace crrecord
