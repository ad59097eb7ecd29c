// A question about a whole store: the records and segments that it counts.

#pragma once

#include <crrecord/DORecordView.h>

#include <algorithm>
#include <vector>

namespace crrecord::tool {

// A record is in the first set, in both sets, or in neither. A set of segments has those that its records need. With
// `stored`, the second set of segments has those of the segment records.
struct Question {
    bool heldOnly = false; // the first set has held records only
    bool stored = false;
    // The second set has the records that are still held without these references. The sums of a container's records
    // and own bytes cover the lost records.
    std::vector<DOReference> dropped;
    bool ownContainers = true; // a record needs the container that it is in itself

    bool IsDrop() const { return !dropped.empty(); }
};

struct Membership {
    bool held = false; // it has a reference, typed or legacy
    bool inFirst = false;
    bool inSecond = false;
};

inline bool IsDropped(Question const& question, DOReference const& reference) {
    return std::any_of(question.dropped.begin(), question.dropped.end(), [&](DOReference const& dropped) {
        return dropped.kind == reference.kind && dropped.id == reference.id;
    });
}

// Calls use(reference) until it returns true. Returns: whether a call returned true.
template <class Use>
bool AnyReference(DORecordView const& view, Use use) {
    for (unsigned int i = 0; i < view.GetLegacyTaskIDs(); ++i) {
        auto const id = Load<std::uint64_t>(DORecordHeaderIndexOfTaskId(view.GetHeader(), i));
        if (use(DOReference{CR_REFTYPE_TASKID, id})) {
            return true;
        }
    }
    for (unsigned int i = 0; i < view.GetLegacyDSIDs(); ++i) {
        auto const id = Load<std::uint32_t>(DORecordHeaderIndexOfDataSelection(view.GetHeader(), i));
        if (use(DOReference{CR_REFTYPE_DSID, id})) {
            return true;
        }
    }
    DOReferenceRange const typed = view.References();
    return std::any_of(typed.begin(), typed.end(), use);
}

inline Membership MembershipOf(DORecordView const& view, Question const& question) {
    Membership result;
    result.held = AnyReference(view, [](DOReference const&) { return true; });
    result.inFirst = result.held || !question.heldOnly;
    result.inSecond = question.IsDrop() &&
                      AnyReference(view, [&](DOReference const& reference) { return !IsDropped(question, reference); });
    return result;
}

} // namespace crrecord::tool
