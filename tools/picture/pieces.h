// Where an object's bytes lie, piece by piece.

#pragma once

#include "record/do_record.h"

#include <optional>

namespace crrecord::tool {

// Neighbouring segments of one container without a gap between them.
struct Piece {
    std::uint64_t dcid;
    unsigned int first; // segments
    unsigned int last;
    std::uint64_t position; // in the object
    std::uint64_t bytes;
    bool newFragment; // the segment in front lies in another container

    std::uint64_t End() const { return position + bytes; }
};

template <class Use>
void ForEachPiece(DORecordView const& view, Use use) {
    std::optional<Piece> piece;
    DOSegmentRange const segments = view.Segments();
    ForEachSegment(segments, view.GetDOType(), segments.size(), [&](auto index, auto position, auto const& segment) {
        bool const sameContainer = piece && piece->dcid == segment.dcid;
        if (sameContainer && piece->End() == position) {
            piece->last = index;
            piece->bytes += segment.size;
            return;
        }
        if (piece) {
            use(std::as_const(*piece));
        }
        piece = Piece{segment.dcid, index, index, position, segment.size, !sameContainer};
    });
    if (piece) {
        use(std::as_const(*piece));
    }
}

} // namespace crrecord::tool
