// What the sources of DORecord share.

#pragma once

#include <crrecord/DORecord.h>

#include "support/validate/segment_list_check.h"
#include "tref/inline_compare.h"

#include <string_view>

namespace crrecord {

// Converts one field either way between the record's order and the host's.
template <class T>
T InOrder(T value, bool networkOrder) noexcept {
    return InOrder(value, OrderFromFlag(networkOrder));
}

[[noreturn]] inline void Refuse(char const* text) {
    throw Cr_ErrnoException(CR_STATUS_INVALID, text, nullptr);
}

inline constexpr char kInvalidRecordSize[] = "invalid record size for DO";

[[noreturn]] inline void RefuseLegacyArrays() {
    Refuse("Cannot construct a DORecord that does not own its internal buffer but has old task id and dsid "
           "references.");
}

// Throws, with its text, where a rule is broken.
void ThrowIfFaulty(SegmentFault const& fault, unsigned int dotype);

inline std::uint64_t SizeOf(Cr_TRef const& reference) noexcept {
    return ReferenceSize(reference.Get()->kind);
}

} // namespace crrecord
