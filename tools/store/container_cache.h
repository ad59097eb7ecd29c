// A restore's cache of containers.

#pragma once

#include "analysis/hash_table.h"

#include <algorithm>
#include <list>
#include <span>
#include <unordered_map>

namespace crrecord::tool {

// Keeps the containers that were used last. Memory: about 100 bytes for each container that it keeps.
class ContainerCache {
public:
    explicit ContainerCache(std::uint64_t most) : most_(most) {}

    void Use(std::uint64_t dcid) {
        if (!order_.empty() && order_.front() == dcid) {
            return;
        }
        auto const found = places_.find(dcid);
        if (found != places_.end()) {
            order_.splice(order_.begin(), order_, found->second);
            return;
        }
        ++fetches_;
        if (order_.size() == most_) {
            places_.erase(order_.back());
            order_.pop_back();
        }
        order_.push_front(dcid);
        places_[dcid] = order_.begin();
    }

    // Continues with the uses that another cache of this size, empty at first, counted: its fetches, its containers in
    // the order of their first use, and those that it has at the end, the last one used first.
    //
    // Whether a container is fetched again depends only on the uses since the last one. So the other cache counted all
    // fetches correctly but those of first uses.
    void Continue(std::span<std::uint64_t const> firstUses, std::span<std::uint64_t const> lastUses,
                  std::uint64_t fetches) {
        fetches_ += fetches - firstUses.size();
        for (std::uint64_t const dcid : firstUses) {
            Use(dcid);
        }
        std::uint64_t const counted = fetches_;
        for (std::size_t i = lastUses.size(); i != 0; --i) {
            Use(lastUses[i - 1]);
        }
        fetches_ = counted;
    }

    // Calls visit(dcid) for each container that it has, the last one used first.
    template <class Visit>
    void ForEach(Visit visit) const {
        std::for_each(order_.begin(), order_.end(), visit);
    }

    // How often a container was used that it did not have.
    std::uint64_t Fetches() const { return fetches_; }

private:
    struct Hash {
        std::size_t operator()(std::uint64_t dcid) const { return HashOfNumber(dcid); }
    };

    std::uint64_t most_;
    std::uint64_t fetches_ = 0;
    std::list<std::uint64_t> order_; // the last one used is the first
    std::unordered_map<std::uint64_t, std::list<std::uint64_t>::iterator, Hash> places_;
};

} // namespace crrecord::tool
