// Bounds of the layout of a DO record, shown by the compiler for all counts, DO types and fingerprint types.

#include "support/layout/record_layout.h"

namespace crrecord {

namespace {

constexpr std::uint32_t kMost = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint64_t kBound = std::uint64_t{1} << 39;

// True if `holds` is true for each DO type and fingerprint type, and for the values after the last of both.
template <class Holds>
consteval bool ForAllTypes(Holds holds) {
    for (unsigned int dotype = 0; dotype <= CR_DO_TYPE_LAST + 1; ++dotype) {
        for (unsigned int fptype = 0; fptype <= CR_FP_TYPE_LAST + 1; ++fptype) {
            if (!holds(static_cast<unsigned char>(dotype), static_cast<unsigned char>(fptype))) {
                return false;
            }
        }
    }
    return true;
}

// Each offset is a sum of products of counts and sizes, none of which is negative. So no counts give more than the
// greatest ones, and if no sum passes the bound with those, no part of a sum ever does.
static_assert(ForAllTypes([](unsigned char dotype, unsigned char fptype) {
    RecordLayout const layout({kMost, kMost, kMost, kMost, kMost, kMost, fptype, dotype});
    return layout.total < kBound && layout.Entry(kMost) + layout.offset < kBound && layout.Dcid(kMost) < kBound &&
           layout.UniqueEntry(kMost) < kBound && layout.taskids + std::uint64_t{kLegacyTaskIdSize} * kMost < kBound &&
           layout.dsids + std::uint64_t{kLegacyDsidSize} * kMost < kBound;
}));

// The sections do not overlap and fill the record: each starts at or after the one before it, for no counts and for the
// greatest; the differences are linear in the counts.
static_assert(ForAllTypes([](unsigned char dotype, unsigned char fptype) {
    for (std::uint32_t const count : {std::uint32_t{0}, std::uint32_t{1}, kMost}) {
        RecordLayout const layout({count, count, count, count, count, count, fptype, dotype});
        if (layout.entries != CR_DO_HEADER_SIZE || layout.dcids < layout.entries || layout.udcids < layout.dcids ||
            layout.taskids < layout.udcids || layout.dsids < layout.taskids || layout.trefs < layout.dsids ||
            layout.tail < layout.trefs || layout.total <= layout.tail) {
            return false;
        }
    }
    return true;
}));

// Raw accessors of the last segment access 32 bytes of its fingerprint, and a size and a 64-bit offset whether the
// entry has them or not. The record with one segment and nothing else still has these bytes; each further segment moves
// the end by at least as much as the access.
static_assert(ForAllTypes([](unsigned char dotype, unsigned char fptype) {
    RecordLayout const layout({.nfp = 1, .fptype = fptype, .dotype = dotype});
    std::uint64_t const entry = layout.Entry(0);
    return IsBloom(dotype) ? layout.segments == 0
                           : entry + sizeof(crfp_digest_t) <= layout.total &&
                                 entry + layout.fingerprint + sizeof(std::uint32_t) <= layout.total &&
                                 entry + layout.offset + sizeof(std::uint64_t) <= layout.total &&
                                 layout.Dcid(0) + kDcidSize <= layout.total;
}));

// A record whose counts are all 0 has the bare size.
static_assert(ForAllTypes([](unsigned char dotype, unsigned char fptype) {
    return RecordLayout({.fptype = fptype, .dotype = dotype}).total == CR_DO_RECORD_SIZE;
}));

// The members of an entry's layout have 8 bits and hold their sums uncut.
static_assert(ForAllTypes([](unsigned char dotype, unsigned char fptype) {
    DOEntryLayout const entry(dotype, fptype);
    DOType const type = DOTypeOf(dotype);
    return entry.offset == CRFPDigestSize(fptype) + 4 &&
           entry.stride == CRFPDigestSize(fptype) + type.sizeWidth + type.offsetWidth;
}));

} // namespace

} // namespace crrecord
