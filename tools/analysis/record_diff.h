// In what two DO records differ, but for their segments.

#pragma once

#include "analysis/container_totals.h"

#include <crrecord/DORecord.h>

#include <functional>
#include <string>

namespace crrecord::tool {

// A field's value, also as people read it.
struct HeaderValue {
    std::uint64_t number;
    std::string text;
};

// Calls use(name, a, b) for each field of the header that differs. Fields that follow from what else differs (type,
// record size, size of the references, numbers of legacy references) are left out, as is what has no meaning.
void DiffHeaders(DORecord const& a, DORecord const& b,
                 std::function<void(char const* name, HeaderValue const& a, HeaderValue const& b)> const& use);

// Calls use(text, isInB) for each reference that one record has and the other has not.
void DiffReferences(DORecord const& a, DORecord const& b,
                    std::function<void(char const* reference, bool isInB)> const& use);

bool BitmapsDiffer(DORecord const& a, DORecord const& b);

// What one record says of a container.
struct ContainerUse {
    std::uint64_t segments = 0;
    std::uint64_t bytes = 0;
    std::uint64_t listed = 0; // bytes by the record's own list of containers

    bool operator==(ContainerUse const&) const = default;
};

struct ContainerDiff {
    std::uint64_t dcid;
    ContainerUse a;
    ContainerUse b;
};

// Containers of which the records say different things, by id. Memory: 67 bytes for each container.
std::vector<ContainerDiff> DiffContainers(DORecord const& a, DORecord const& b);

} // namespace crrecord::tool
