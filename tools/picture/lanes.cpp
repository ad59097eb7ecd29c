#include "picture/lanes.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <optional>

namespace crrecord::tool {

namespace {

constexpr double kLeft = 180; // of the plot; the labels are to its left
constexpr double kPlotWidth = 800;
constexpr unsigned int kColumns = 400; // of shaded rows
constexpr std::size_t kMostRows = 80;
constexpr std::uint64_t kMostPieces = 1000; // drawn one by one
constexpr double kLabelHeight = 12;

// The least share of a column's bytes for each darker shade: 1/32, 1/8, 1/2.
constexpr unsigned int kShadeShifts[] = {5, 3, 1};
constexpr unsigned int kShades = std::size(kShadeShifts) + 1;

__extension__ typedef unsigned __int128 Wide;

// Consecutive segments in one container without a gap between them.
struct Piece {
    std::uint64_t dcid;
    unsigned int first; // segments
    unsigned int last;
    std::uint64_t position; // in the object
    std::uint64_t bytes;
    bool newFragment; // the segment before is in another container

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

class Plot {
public:
    Plot(Picture& picture, DORecordView const& view, Lanes& lanes)
        : picture_(picture), view_(view), lanes_(lanes), size_(std::max<std::uint64_t>(view.GetSize(), 1)),
          perRow_((lanes.size() + kMostRows - 1) / kMostRows), rows_((lanes.size() + perRow_ - 1) / perRow_),
          shaded_(perRow_ > 1 || lanes.Pieces() > kMostPieces),
          rowHeight_(std::clamp(300 / static_cast<double>(rows_), 6.0, 26.0)) {}

    void Draw() {
        DrawLegend();
        top_ = picture_.Top();
        DrawRows();
        shaded_ ? DrawShades() : DrawPieces();
        picture_.MoveDown(rowHeight_ * static_cast<double>(rows_));
        if (lanes_.GapBytes() != 0) {
            DrawGaps();
        }
        DrawAxis();
    }

private:
    double X(std::uint64_t position) const {
        return kLeft + kPlotWidth * static_cast<double>(position) / static_cast<double>(size_);
    }
    double RowTop(std::uint64_t row) const { return top_ + rowHeight_ * static_cast<double>(row); }
    double BarHeight() const { return rowHeight_ < kLabelHeight ? rowHeight_ - 1 : rowHeight_ - 4; }
    std::uint64_t ColumnStart(std::uint64_t column) const {
        return static_cast<std::uint64_t>(Wide{size_} * column / kColumns);
    }
    // Calls use(column, bytes) for each column that the bytes from `from` to `to` touch.
    template <class Use>
    void ForEachColumn(std::uint64_t from, std::uint64_t to, Use use) const {
        to = std::min(to, size_);
        auto column = static_cast<std::uint64_t>(Wide{from} * kColumns / size_);
        while (from < to) {
            std::uint64_t const end = ColumnStart(column + 1);
            if (from < end) {
                use(column, std::min(end, to) - from);
                from = end;
            }
            ++column;
        }
    }

    void DrawLegend() {
        double x = kLeft;
        double const y = picture_.Top();
        auto const entry = [&](std::string_view attributes, std::string_view text) {
            picture_.Print("<rect {} x=\"{:.1f}\" y=\"{:.1f}\" width=\"14\" height=\"12\"/>\n", attributes, x, y);
            picture_.Text(x + 20, y + 10, "small", text);
            x += 20 + TextWidth(text.size()) + 16;
        };
        if (shaded_) {
            picture_.Text(kLeft - 10, y + 10, "small end", "share of a column");
            static constexpr char const* kTexts[] = {"any", "from 1/32", "from 1/8", "from 1/2"};
            for (unsigned int shade = 0; shade < kShades; ++shade) {
                entry(fmt::format("class=\"d{}\"", shade), kTexts[shade]);
            }
        } else {
            entry("class=\"first\"", "first use of a container");
            entry("class=\"again\"", "back in a container used before");
        }
        if (lanes_.GapBytes() != 0) {
            entry("fill=\"url(#gap)\"", "gap: no segment");
        }
        picture_.MoveDown(shaded_ ? 22 : 20);
        if (shaded_) {
            std::string const rows = perRow_ == 1 ? ""
                                                  : fmt::format(", a row is {} in the order of first use",
                                                                GroupedCount(perRow_, "container"));
            picture_.Text(kLeft, picture_.Top() + 6, "small weak",
                          fmt::format("A column is {} of the object{}",
                                      GroupedCount((size_ + kColumns - 1) / kColumns, "byte"), rows));
            picture_.MoveDown(14);
        }
        picture_.Text(kLeft - 10, picture_.Top() + 8, "small weak end", "container");
        picture_.MoveDown(14);
    }

    void DrawRows() {
        auto const step = static_cast<std::uint64_t>(std::ceil(kLabelHeight / rowHeight_));
        for (std::uint64_t row = 0; row < rows_; ++row) {
            picture_.Print("<rect class=\"lane\" x=\"{}\" y=\"{:.2f}\" width=\"{}\" height=\"{:.2f}\"/>\n", kLeft,
                           RowTop(row), kPlotWidth, BarHeight());
            if (row % step == 0) {
                std::uint64_t const last = std::min<std::uint64_t>((row + 1) * perRow_, lanes_.size()) - 1;
                std::uint64_t const more = last - row * perRow_;
                picture_.Text(
                    kLeft - 10, RowTop(row) + BarHeight() / 2 + 4, "small end",
                    fmt::format("{}{}", lanes_[row * perRow_].dcid, more == 0 ? "" : fmt::format(" +{}", more)));
            }
        }
    }

    void DrawPieces() {
        constexpr double kNarrowest = 0.7;
        std::vector<bool> used(lanes_.size());
        bool again = false;
        ForEachPiece(view_, [&](Piece const& piece) {
            std::uint64_t const lane = lanes_.Of(piece.dcid).number;
            if (piece.newFragment) {
                again = used[lane];
                used[lane] = true;
            }
            std::string const segments = piece.first == piece.last
                                             ? fmt::format("segment {}", piece.first)
                                             : fmt::format("segments {} to {}", piece.first, piece.last);
            picture_.Print(
                "<rect class=\"{}\" x=\"{:.2f}\" y=\"{:.2f}\" width=\"{:.2f}\" height=\"{:.2f}\"><title>{}: {} "
                "at byte {}, container {}</title></rect>\n",
                again ? "again" : "first", X(piece.position), RowTop(lane),
                std::max(X(piece.End()) - X(piece.position), kNarrowest), BarHeight(), segments,
                GroupedCount(piece.bytes, "byte"), Grouped(piece.position), piece.dcid);
        });
    }

    void DrawShades() {
        std::vector<std::vector<std::uint64_t>> bytes(rows_, std::vector<std::uint64_t>(kColumns));
        ForEachPiece(view_, [&](Piece const& piece) {
            auto& row = bytes[lanes_.Of(piece.dcid).number / perRow_];
            ForEachColumn(piece.position, piece.End(), [&](auto column, auto count) { row[column] += count; });
        });
        for (std::uint64_t row = 0; row < rows_; ++row) {
            DrawRowOfShades(row, bytes[row]);
        }
    }

    // Draws one path for each shade; consecutive columns are one line. That is shorter than a rectangle for each.
    void DrawRowOfShades(std::uint64_t row, std::vector<std::uint64_t> const& bytes) {
        constexpr unsigned int kNone = kShades;
        auto const shadeOf = [&](std::uint64_t column) {
            if (bytes[column] == 0) {
                return kNone;
            }
            std::uint64_t const all = ColumnStart(column + 1) - ColumnStart(column);
            return static_cast<unsigned int>(
                std::count_if(std::begin(kShadeShifts), std::end(kShadeShifts), [&](unsigned int shift) {
                    return bytes[column] >= (all + (1UL << shift) - 1) >> shift;
                }));
        };
        constexpr auto kColumnWidth = static_cast<unsigned int>(kPlotWidth) / kColumns;
        std::string paths[kShades];
        std::uint64_t ends[kShades]{}; // the last columns of the paths
        for (std::uint64_t column = 0; column < kColumns;) {
            std::uint64_t const from = column;
            unsigned int const shade = shadeOf(column);
            do {
                ++column;
            } while (column < kColumns && shadeOf(column) == shade);
            if (shade != kNone) {
                paths[shade] +=
                    fmt::format("m{} 0h{}", (from - ends[shade]) * kColumnWidth, (column - from) * kColumnWidth);
                ends[shade] = column;
            }
        }
        picture_.Print("<g stroke-width=\"{:.2f}\"><title>{}</title>\n", BarHeight(), RowTitle(row));
        for (unsigned int shade = 0; shade < kShades; ++shade) {
            if (!paths[shade].empty()) {
                picture_.Print("<path class=\"d{}\" d=\"M{} {:.2f}{}\"/>\n", shade, kLeft,
                               RowTop(row) + BarHeight() / 2, paths[shade]);
            }
        }
        picture_.Print("</g>\n");
    }

    std::string RowTitle(std::uint64_t row) const {
        std::uint64_t const first = row * perRow_;
        std::uint64_t const end = std::min<std::uint64_t>(first + perRow_, lanes_.size());
        Lanes::Lane sum{};
        for (std::uint64_t i = first; i < end; ++i) {
            sum.segments += lanes_[i].segments;
            sum.bytes += lanes_[i].bytes;
            sum.fragments += lanes_[i].fragments;
        }
        std::string const more = end - first == 1 ? "" : fmt::format(" and {} more", end - first - 1);
        return fmt::format("container {}{}: {}, {}, {}", lanes_[first].dcid, more,
                           GroupedCount(sum.segments, "segment"), GroupedCount(sum.bytes, "byte"),
                           GroupedCount(sum.fragments, "fragment"));
    }

    // Draws a separate row of gaps, by columns if the lanes are shaded.
    void DrawGaps() {
        constexpr double kHeight = 12;
        double const y = picture_.Top() + 2;
        picture_.Text(kLeft - 10, y + 10, "small end", "gaps");
        auto const draw = [&](double x, double width, std::string const& title) {
            picture_.Print("<rect fill=\"url(#gap)\" x=\"{:.2f}\" y=\"{:.2f}\" width=\"{:.2f}\" height=\"{}\"><title>{}"
                           "</title></rect>\n",
                           x, y, width, kHeight, title);
        };
        std::vector<std::uint64_t> columns(kColumns);
        std::uint64_t end = 0;
        auto const gap = [&](std::uint64_t to) {
            if (end < to && shaded_) {
                ForEachColumn(end, to, [&](auto column, auto count) { columns[column] += count; });
            } else if (end < to) {
                draw(X(end), std::max(X(to) - X(end), 1.0),
                     fmt::format("gap: {} at byte {}", GroupedCount(to - end, "byte"), Grouped(end)));
            }
        };
        ForEachPiece(view_, [&](Piece const& piece) {
            gap(piece.position);
            end = piece.End();
        });
        gap(view_.GetSize());
        for (std::uint64_t column = 0; column < kColumns; ++column) {
            if (columns[column] != 0) {
                draw(kLeft + kPlotWidth / kColumns * static_cast<double>(column), kPlotWidth / kColumns,
                     GroupedCount(columns[column], "byte") + " in gaps");
            }
        }
        picture_.MoveDown(kHeight + 6);
    }

    // The ticks are multiples of a power of two, so their labels are whole numbers of a unit.
    void DrawAxis() {
        static constexpr char const* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
        constexpr std::uint64_t kMostTicks = 8;
        std::uint64_t const step = std::bit_ceil(size_ / kMostTicks + 1);
        auto const unit = static_cast<unsigned int>(std::bit_width(step) - 1) / 10;
        double const y = picture_.Top() + 3;
        picture_.Print("<path class=\"axis\" d=\"M{} {:.1f}h{}\"/>\n", kLeft, y, kPlotWidth);
        for (std::uint64_t position = 0;; position += step) {
            picture_.Print("<path class=\"axis\" d=\"M{:.1f} {:.1f}v5\"/>\n", X(position), y);
            std::string const label = fmt::format("{} {}", position >> (10 * unit), kUnits[unit]);
            bool const fits = X(position) + TextWidth(label.size()) / 2 <= kLeft + kPlotWidth;
            picture_.Text(X(position), y + 18, fits ? "small middle" : "small end", label);
            if (size_ - position < step) {
                break;
            }
        }
        picture_.Text(kLeft + kPlotWidth / 2, y + 36, "small weak middle", "position in the object");
        picture_.MoveDown(40);
    }

    Picture& picture_;
    DORecordView const& view_;
    Lanes& lanes_;
    std::uint64_t size_;
    std::uint64_t perRow_; // containers
    std::uint64_t rows_;
    bool shaded_;
    double rowHeight_;
    double top_ = 0;
};

} // namespace

Lanes::Lanes(DORecordView const& view) {
    std::uint64_t end = 0;
    ForEachPiece(view, [&](Piece const& piece) {
        Lane& lane = table_.Of(piece.dcid);
        if (lane.segments == 0) {
            lane.number = table_.size() - 1;
        }
        lane.segments += std::uint64_t{piece.last} - piece.first + 1;
        lane.bytes += piece.bytes;
        lane.fragments += piece.newFragment ? 1 : 0;
        fragments_ += piece.newFragment ? 1 : 0;
        gapBytes_ += piece.position - std::min(end, piece.position);
        end = piece.End();
        ++pieces_;
    });
    gapBytes_ += view.GetSize() - std::min(end, view.GetSize());
}

void DrawLanes(Picture& picture, DORecordView const& view, Lanes& lanes) {
    if (lanes.size() != 0) {
        Plot(picture, view, lanes).Draw();
    }
}

} // namespace crrecord::tool
