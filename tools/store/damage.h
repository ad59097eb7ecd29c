// The damage to a record if some containers are lost.

#pragma once

#include "store/claimed_bytes.h"

#include <crrecord/DORecordView.h>

#include <algorithm>
#include <vector>

namespace crrecord::tool {

// A set of containers.
class ContainerSet {
public:
    explicit ContainerSet(std::vector<std::uint64_t> dcids) : dcids_(std::move(dcids)) {
        std::sort(dcids_.begin(), dcids_.end());
    }

    bool Has(std::uint64_t dcid) const {
        return !dcids_.empty() && dcid >= dcids_.front() && dcid <= dcids_.back() &&
               std::binary_search(dcids_.begin(), dcids_.end(), dcid);
    }

private:
    std::vector<std::uint64_t> dcids_; // ascending
};

struct Damage {
    std::uint64_t segments = 0; // entries in the lost containers
    std::uint64_t bytes = 0;
    std::uint64_t bloomBytes = 0;
    bool isTooLarge = false; // bloomBytes would exceed kMostClaimed
    bool needed = false;     // the record needs one of the containers
    bool own = false;        // the record itself is in one
};

inline Damage DamageOf(DORecordView const& view, ContainerSet const& lost) {
    Damage damage;
    damage.own = lost.Has(view.GetDCID());
    damage.needed = damage.own;
    if (IsBloom(view.GetDOType())) {
        for (DOUniqueDCID const& entry : view.UniqueDCIDs()) {
            if (lost.Has(entry.dcid)) {
                damage.isTooLarge |= !AddClaimed(damage.bloomBytes, entry.bytes);
                damage.needed = true;
            }
        }
        return damage;
    }
    DOSegmentSource const source = view.Segments().GetSource();
    for (unsigned int i = 0; i < source.count; ++i) {
        if (lost.Has(Load<std::uint64_t>(source.dcids + std::uint64_t{i} * 8))) {
            ++damage.segments;
            damage.bytes += source.Size(i);
            damage.needed = true;
        }
    }
    return damage;
}

} // namespace crrecord::tool
