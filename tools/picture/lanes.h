// An object's segments, drawn by container.

#pragma once

#include "analysis/hash_table.h"
#include "picture/svg.h"
#include "record/do_record.h"

namespace crrecord::tool {

// The containers of an object in the order of first use. Memory: some 50 bytes for each container.
class Lanes {
public:
    struct Lane {
        std::uint64_t dcid;
        std::uint64_t number = 0;
        std::uint64_t segments = 0;
        std::uint64_t bytes = 0;
        std::uint64_t fragments = 0;
    };

    explicit Lanes(DORecordView const& view);

    std::size_t size() const { return table_.size(); }
    Lane const& operator[](std::size_t number) const { return table_[number]; }
    // The lane of a container of the object.
    Lane const& Of(std::uint64_t dcid) { return table_.Of(dcid); }

    std::uint64_t Pieces() const { return pieces_; }
    std::uint64_t Fragments() const { return fragments_; }
    std::uint64_t GapBytes() const { return gapBytes_; }

private:
    ContainerTable<Lane> table_;
    std::uint64_t pieces_ = 0;
    std::uint64_t fragments_ = 0;
    std::uint64_t gapBytes_ = 0;
};

// Draws one lane for each container, with a rectangle for each piece. With too many containers or pieces, several
// containers share a row, and each row is divided into columns, whose shade is the share of the column's bytes that are
// in these containers. This bounds the picture to some hundred thousand bytes.
void DrawLanes(Picture& picture, DORecordView const& view, Lanes& lanes);

} // namespace crrecord::tool
