// An object's segments over its containers.

#pragma once

#include "analysis/container_totals.h"
#include "picture/pieces.h"
#include "picture/svg.h"

namespace crrecord::tool {

// The containers of an object in the order of their first use, and what lies in each. Memory: some 50 bytes for each
// container.
class Lanes {
public:
    struct Lane {
        std::uint64_t dcid;
        std::uint64_t number;
        std::uint64_t segments;
        std::uint64_t bytes;
        std::uint64_t fragments;
    };

    explicit Lanes(DORecordView const& view);

    std::size_t size() const { return table_.size(); }
    Lane const& operator[](std::size_t number) const { return table_[number]; }
    // The lane of a container of the object.
    Lane const& Of(std::uint64_t dcid) { return *Find(dcid); }

    std::uint64_t Pieces() const { return pieces_; }
    std::uint64_t Fragments() const { return fragments_; }
    std::uint64_t GapBytes() const { return gapBytes_; }

private:
    Lane* Find(std::uint64_t dcid);

    HashTable<Lane, HashOfContainer> table_;
    Lane* last_ = nullptr; // neighbouring pieces often lie in one container
    std::uint64_t pieces_ = 0;
    std::uint64_t fragments_ = 0;
    std::uint64_t gapBytes_ = 0;
};

// One lane for each container, and in it a rectangle for each piece. A picture of too many of them would be huge and
// show nothing: then several containers share a row, and of each row and column of the picture a shade says how much of
// the object's bytes there lie in these containers. So the picture has at most some hundred thousand bytes, whatever
// the record holds.
void DrawLanes(Picture& picture, DORecordView const& view, Lanes& lanes);

} // namespace crrecord::tool
