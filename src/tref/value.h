// The value of a typed reference and its binary form, for use inside the library.

#pragma once

#include <crrecord/references.h>
#include <crrecord/status.h>

#include "base/byteorder.h"

#include <limits>

struct _cr_tref_t {
    unsigned long id;
    cr_reftype_t kind;
};

namespace crrecord {

inline constexpr int kReferenceKinds = CR_REFTYPE_END;
inline constexpr unsigned long kReferenceHeadSize = CRR_REFERENCE_HEAD_SIZE; // kind and length of the id

constexpr bool ReferenceKindIsValid(int kind) noexcept {
    return kind >= 0 && kind < kReferenceKinds;
}

constexpr unsigned long ReferenceIdSize(int kind) noexcept {
    return kind == CR_REFTYPE_DSID ? 4 : 8;
}

constexpr unsigned long ReferenceSize(int kind) noexcept {
    return kReferenceHeadSize + ReferenceIdSize(kind);
}

constexpr bool ReferenceIdIsValid(int kind, unsigned long id) noexcept {
    return kind != CR_REFTYPE_DSID || id <= std::numeric_limits<std::uint32_t>::max();
}

constexpr int CompareReferences(_cr_tref_t const& a, _cr_tref_t const& b) noexcept {
    if (a.kind != b.kind) {
        return a.kind < b.kind ? -1 : 1;
    }
    return a.id == b.id ? 0 : a.id < b.id ? -1 : 1;
}

// Decodes the reference at the start of `available` bytes.
// Returns: the size of its binary form in bytes, or 0 if the bytes are no reference.
inline unsigned long DecodeReference(unsigned char const* bytes, unsigned long available,
                                     _cr_tref_t& reference) noexcept {
    DOReference decoded{};
    unsigned long const size = DOReferenceDecode(bytes, available, decoded);
    reference = {decoded.id, decoded.kind};
    return size;
}

// Encodes a reference at the start of `available` bytes.
// Returns: the size of its binary form in bytes. On failure: 0 if too few bytes are available; they are not changed.
inline unsigned long EncodeReference(unsigned char* bytes, unsigned long available,
                                     _cr_tref_t const& reference) noexcept {
    unsigned long const size = ReferenceSize(reference.kind);
    if (available < size) {
        return 0;
    }
    bytes[0] = static_cast<unsigned char>(reference.kind);
    bytes[1] = static_cast<unsigned char>(ReferenceIdSize(reference.kind));
    if (bytes[1] == 4) {
        Store(bytes + kReferenceHeadSize, static_cast<std::uint32_t>(reference.id), Order::Network);
    } else {
        Store(bytes + kReferenceHeadSize, std::uint64_t{reference.id}, Order::Network);
    }
    return size;
}

} // namespace crrecord
