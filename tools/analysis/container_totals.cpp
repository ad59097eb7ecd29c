#include "analysis/container_totals.h"

#include <algorithm>

namespace crrecord::tool {

ContainerTotals& Containers::Of(std::uint64_t dcid) {
    std::uint64_t const hash = HashOfNumber(dcid);
    ContainerTotals* const found =
        table_.Find(hash, [dcid](ContainerTotals const& totals) { return totals.dcid == dcid; });
    return found ? *found : table_.Add(hash, {dcid, 0, 0, 0});
}

std::vector<ContainerTotals const*> Containers::Sorted(std::optional<std::uint64_t> top) const {
    std::vector<ContainerTotals const*> sorted(table_.size());
    for (std::size_t i = 0; i < sorted.size(); ++i) {
        sorted[i] = &table_[i];
    }
    auto const byId = [](auto const* a, auto const* b) { return a->dcid < b->dcid; };
    if (!top) {
        std::sort(sorted.begin(), sorted.end(), byId);
        return sorted;
    }
    auto const end = sorted.begin() + static_cast<std::ptrdiff_t>(std::min<std::uint64_t>(*top, sorted.size()));
    std::partial_sort(sorted.begin(), end, sorted.end(), [&](auto const* a, auto const* b) {
        return a->bytes != b->bytes ? a->bytes > b->bytes : byId(a, b);
    });
    sorted.erase(end, sorted.end());
    return sorted;
}

} // namespace crrecord::tool
