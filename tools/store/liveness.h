// Liveness of a container. The first set of its sums has the needed segments, the second the stored ones.

#pragma once

#include "store/container_sums.h"

namespace crrecord::tool {

enum class ContainerState { Live, Sparse, Dead };

inline ContainerState StateOf(ContainerSums const& sums, unsigned int sparsePercent) {
    if (sums.records == 0) {
        return ContainerState::Dead;
    }
    __extension__ using Product = unsigned __int128;
    bool const isSparse =
        sums.isInBloom == 0 && Product{sums.first.bytes} * 100 < Product{sums.second.bytes} * sparsePercent;
    return isSparse ? ContainerState::Sparse : ContainerState::Live;
}

inline char const* NameOf(ContainerState state) {
    return state == ContainerState::Dead ? "dead" : state == ContainerState::Sparse ? "sparse" : "live";
}

// Returns: the stored bytes that no record needs. A bloom record does not name its segments, so any may be needed.
inline std::uint64_t GainOf(ContainerSums const& sums) {
    std::uint64_t const present = sums.first.bytes - sums.onlyFirst.bytes;
    return sums.isInBloom != 0 || present > sums.second.bytes ? 0 : sums.second.bytes - present;
}

// The order of compaction: by needed bytes per stored byte. Containers without gain come last.
inline bool IsSparser(ContainerSums const& a, ContainerSums const& b) {
    __extension__ using Product = unsigned __int128;
    bool const gainsA = GainOf(a) != 0;
    bool const gainsB = GainOf(b) != 0;
    if (gainsA != gainsB) {
        return gainsA;
    }
    Product const ofA = gainsA ? Product{a.first.bytes} * b.second.bytes : 0;
    Product const ofB = gainsA ? Product{b.first.bytes} * a.second.bytes : 0;
    return ofA != ofB ? ofA < ofB : a.dcid < b.dcid;
}

} // namespace crrecord::tool
