// The end of a bad record whose size and counts disagree.

#pragma once

#include <crrecord/probe.h>

#include <algorithm>
#include <span>

namespace crrecord::python {

// `peek(n)` returns the bytes of a source from the record on: at least `n`, unless the source ends. It is not asked for
// more than `most`.
// Returns: the bytes of the record: up to the nearer end if a record starts there or the source ends there, otherwise
// up to the farther one; 0 if the source has neither.
template <class Peek>
std::size_t SizeOfDoubtful(cr_record_probe_t const& probe, std::size_t most, Peek peek) {
    auto const [near, far] = std::minmax({probe.recorded_size, probe.counted_size});
    std::span<unsigned char const> const bytes = peek(std::min(near + probe.head_size, most));
    bool const hasNear = near >= probe.head_size && near <= bytes.size();
    if (hasNear &&
        (near == bytes.size() || CRRecordProbe(bytes.data() + near, bytes.size() - near).kind != CR_RECORD_UNKNOWN)) {
        return near;
    }
    if (far >= probe.head_size && far <= most && far <= peek(far).size()) {
        return far;
    }
    return hasNear ? near : 0;
}

} // namespace crrecord::python
