// Container identifiers (DCIDs), which say where stored bytes lie.

#pragma once

// The first identifier that is free for use; those below are reserved, and refused for segments.
inline constexpr unsigned long CR_FIRST_FREE_DCID = 64;
