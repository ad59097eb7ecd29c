// Differences between two DO records, except in their segments.

#pragma once

#include "analysis/container_totals.h"
#include "io/output.h"

#include <crrecord/DORecord.h>

#include <functional>
#include <string>

namespace crrecord::tool {

// A field's value and its readable form.
struct HeaderValue {
    std::uint64_t number;
    std::string text;
};

// Calls use(name, a, b) for each field of the header that differs. Fields that follow from other differences (type,
// record size, size of the references, numbers of legacy references) and reserved fields are omitted.
void DiffHeaders(DORecord const& a, DORecord const& b,
                 std::function<void(char const* name, HeaderValue const& a, HeaderValue const& b)> const& use);

// Calls use(text, isInB) for each reference that is in only one of the records.
void DiffReferences(DORecord const& a, DORecord const& b,
                    std::function<void(char const* reference, bool isInB)> const& use);

// Prints the member "references" of a JSON object, after a comma: the references that are only in `b` (added) and only
// in `a` (removed). Returns: true if there are any.
bool PrintJsonReferenceDiff(Output& out, DORecord const& a, DORecord const& b);

bool BitmapsDiffer(DORecord const& a, DORecord const& b);

// A container's sums in one record.
struct ContainerUse {
    std::uint64_t segments = 0;
    std::uint64_t bytes = 0;
    std::uint64_t listed = 0; // bytes in the record's list of containers

    bool operator==(ContainerUse const&) const = default;
};

struct ContainerDiff {
    std::uint64_t dcid;
    ContainerUse a{};
    ContainerUse b{};
};

// Returns: the containers whose sums differ, by id. Memory: 63 bytes for each container.
std::vector<ContainerDiff> DiffContainers(DORecord const& a, DORecord const& b);

// Returns: the containers of one record, as `a`, whose bytes in the list are not those of its segments, by id.
std::vector<ContainerDiff> WronglyListed(DORecord const& record);

} // namespace crrecord::tool
