// The references of a DO record in text, as people and programs read them.

#pragma once

#include "support/byteorder.h"

#include <crrecord/DORecordView.h>

#include <string>

namespace crrecord::tool {

inline std::string ReferenceText(cr_reftype_t kind, unsigned long id) {
    _cr_tref_t* reference = CRTRefNew(kind, id);
    char text[CR_TREF_TEXT_SIZE];
    CRTRefToString(text, sizeof text, reference);
    CRTRefDelete(&reference);
    return text;
}

// Those of the legacy arrays.
template <class Use>
void ForEachLegacyReference(DORecordView const& view, Use use) {
    for (unsigned int i = 0; i < view.GetLegacyTaskIDs(); ++i) {
        auto const id = Load<std::uint64_t>(DORecordHeaderIndexOfTaskId(view.GetHeader(), i));
        use(ReferenceText(CR_REFTYPE_TASKID, id));
    }
    for (unsigned int i = 0; i < view.GetLegacyDSIDs(); ++i) {
        auto const id = Load<std::uint32_t>(DORecordHeaderIndexOfDataSelection(view.GetHeader(), i));
        use(ReferenceText(CR_REFTYPE_DSID, id));
    }
}

template <class Use>
void ForEachReference(DORecordView const& view, Use use) {
    for (DOReference const reference : view.References()) {
        use(ReferenceText(reference.kind, reference.id));
    }
}

} // namespace crrecord::tool
