// An inline definition of CRTRefCompare, for the sets of a record, which compare references with it.

#pragma once

#include "tref/value.h"

// gnu_inline: the compiler may inline this body and emits no function for it. The exported function is in tref.cpp and
// has the same body.
[[gnu::gnu_inline]] extern inline int CRTRefCompare(_cr_tref_t const* a, _cr_tref_t const* b) noexcept {
    return crrecord::CompareReferences(*a, *b);
}
