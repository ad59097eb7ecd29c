// An inline definition of CRTRefGetID, for the elements of a record's sets, which copy ids with it.

#pragma once

#include "tref/value.h"

// gnu_inline: the compiler may inline this body and emits no function for it. The exported function is in tref.cpp and
// has the same body.
[[gnu::gnu_inline]] extern inline unsigned long CRTRefGetID(_cr_tref_t const* reference) noexcept {
    return reference->id;
}
