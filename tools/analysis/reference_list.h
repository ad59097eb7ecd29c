// The references of an open record as text.

#pragma once

#include <crrecord/DORecord.h>

namespace crrecord::tool {

class ReferenceText {
public:
    explicit ReferenceText(_cr_tref_t const* reference) noexcept { CRTRefToString(text_, sizeof text_, reference); }
    char const* Get() const noexcept { return text_; }

private:
    char text_[CR_TREF_TEXT_SIZE];
};

// Calls use(kind) for every kind of reference.
template <class Use>
void ForEachReferenceKind(Use use) {
    for (int kind = 0; kind < CR_REFTYPE_END; ++kind) {
        use(static_cast<cr_reftype_t>(kind));
    }
}

// Calls use(reference) by kind and id, kind 0 too.
template <class Use>
void ForEachReference(DORecord const& record, Use use) {
    ForEachReferenceKind([&](cr_reftype_t kind) {
        for (auto at = record.GetTRefTypeBegin(kind); at != record.GetTRefTypeEnd(kind); ++at) {
            use((*at)->Get());
        }
    });
}

} // namespace crrecord::tool
