// The references of a DO record as text.

#pragma once

#include "base/byteorder.h"
#include "tref/value.h"

#include <crrecord/DORecord.h>
#include <crrecord/DORecordView.h>

#include <memory>
#include <string_view>
#include <utility>

namespace crrecord::tool {

class ReferenceText {
public:
    explicit ReferenceText(_cr_tref_t const* reference) noexcept { CRTRefToString(text_, sizeof text_, reference); }
    explicit ReferenceText(_cr_tref_t const& reference) noexcept : ReferenceText(&reference) {}
    char const* Get() const noexcept { return text_; }

private:
    char text_[CR_TREF_TEXT_SIZE];
};

struct ReleaseReference {
    void operator()(_cr_tref_t* reference) const { CRTRefDelete(&reference); }
};
using Reference = std::unique_ptr<_cr_tref_t, ReleaseReference>;

// Describes the texts that ParseReference accepts.
inline constexpr char kReferenceForm[] = "a reference such as task:17 (kind 2), dsid:5 (kind 4) or ref6:9, of kinds "
                                         "0 to 10 and ids 0 to 18446744073709551615, of dsid to 4294967295";

// Returns: null for a text that is not a reference.
inline Reference ParseReference(std::string_view text) {
    unsigned long consumed = 0;
    Reference reference(CRTRefNewDeserialize(text.data(), text.size(), CR_TREF_TEXT, &consumed));
    return consumed == text.size() ? std::move(reference) : nullptr;
}

// Calls use(text) for each reference of the legacy arrays.
template <class Use>
void ForEachLegacyReference(DORecordView const& view, Use use) {
    for (unsigned int i = 0; i < view.GetLegacyTaskIDs(); ++i) {
        auto const id = Load<std::uint64_t>(DORecordHeaderIndexOfTaskId(view.GetHeader(), i));
        use(ReferenceText({id, CR_REFTYPE_TASKID}).Get());
    }
    for (unsigned int i = 0; i < view.GetLegacyDSIDs(); ++i) {
        auto const id = Load<std::uint32_t>(DORecordHeaderIndexOfDataSelection(view.GetHeader(), i));
        use(ReferenceText({id, CR_REFTYPE_DSID}).Get());
    }
}

// Calls use(text) for each typed reference.
template <class Use>
void ForEachReference(DORecordView const& view, Use use) {
    for (DOReference const reference : view.References()) {
        use(ReferenceText({reference.id, reference.kind}).Get());
    }
}

// Calls use(kind) for every kind of reference.
template <class Use>
void ForEachReferenceKind(Use use) {
    for (int kind = 0; kind < CR_REFTYPE_END; ++kind) {
        use(static_cast<cr_reftype_t>(kind));
    }
}

// Calls use(text) for each reference of an open record, by kind and id, including kind 0.
template <class Use>
void ForEachReference(DORecord const& record, Use use) {
    ForEachReferenceKind([&](cr_reftype_t kind) {
        for (auto at = record.GetTRefTypeBegin(kind); at != record.GetTRefTypeEnd(kind); ++at) {
            use(ReferenceText((*at)->Get()).Get());
        }
    });
}

} // namespace crrecord::tool
