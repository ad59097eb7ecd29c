// Equality of two records.

#include "DORecord/record.h"

using namespace crrecord;

namespace {

bool FieldsAreEqual(DORecordHeader const& a, DORecordHeader const& b) noexcept {
    return a.type == b.type && a.flags == b.flags && a.ntaskid == b.ntaskid && a.CID == b.CID && a.size == b.size &&
           a.ssize == b.ssize && a.CRC == b.CRC && a.nfp == b.nfp && a.fptype == b.fptype && a.dotype == b.dotype;
}

// Compares only the sizes and the first members; callers rely on it.
bool FirstReferencesAreEqual(DORecord::tref_set_t const& a, DORecord::tref_set_t const& b) noexcept {
    return a.size() == b.size() && (a.empty() || CRTRefEqual((*a.begin())->Get(), (*b.begin())->Get()) != 0);
}

} // namespace

bool DORecord::operator==(DORecord const& other) const {
    if (!header || !other.header) {
        return header == other.header;
    }
    if (networkOrder != other.networkOrder || !FieldsAreEqual(*header, *other.header)) {
        return false;
    }
    for (unsigned int kind = 0; kind < kKinds; ++kind) {
        if (!FirstReferencesAreEqual(trefs[kind], other.trefs[kind])) {
            return false;
        }
    }
    RecordLayout const layout = RecordInternals::CheckedLayout(*this, &RecordLayout::dcids);
    RecordInternals::CheckedLayout(other, &RecordLayout::dcids);
    return std::memcmp(BytesOf(header) + layout.entries, BytesOf(other.header) + layout.entries,
                       layout.dcids - layout.entries) == 0;
}

bool DORecord::operator!=(DORecord const& other) const {
    return !(*this == other);
}
