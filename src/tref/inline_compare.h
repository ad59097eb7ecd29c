// CRTRefCompare inlined, for the sets of a record, which compare through it.

#pragma once

#include "tref/value.h"

// gnu_inline: the compiler may use this body in place of a call and emits nothing for it. The function itself is the
// exported one in tref.cpp, which says the same.
[[gnu::gnu_inline]] extern inline int CRTRefCompare(_cr_tref_t const* a, _cr_tref_t const* b) noexcept {
    return crrecord::CompareReferences(*a, *b);
}
