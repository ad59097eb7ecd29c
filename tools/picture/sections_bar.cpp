#include "picture/sections_bar.h"

#include <algorithm>

namespace crrecord::tool {

namespace {

constexpr double kBarHeight = 34;
constexpr double kLeadHeight = 34; // of the lines from the bar to the labels
constexpr double kNarrowest = 2;   // a narrower section gets a mark
constexpr double kBetween = 12;    // labels
constexpr double kStrong = 1.2;    // how much wider bold text is
constexpr unsigned int kColours = 8;

// The label of a section: the middle of its bytes and of its text.
struct Label {
    double at;
    double middle;
    double width;
    std::string size;
};

// Moves labels only as far as needed: to the right if they overlap, and back to the left if they leave the picture.
void SpreadLabels(std::vector<Label>& labels) {
    double free = Picture::kMargin;
    for (Label& label : labels) {
        label.middle = std::max(label.at, free + label.width / 2);
        free = label.middle + label.width / 2 + kBetween;
    }
    free = Picture::kMargin + Picture::kInner;
    for (auto label = labels.rbegin(); label != labels.rend(); ++label) {
        label->middle = std::min(label->middle, free - label->width / 2);
        free = label->middle - label->width / 2 - kBetween;
    }
}

} // namespace

void DrawSections(Picture& picture, std::vector<Section> const& sections, std::uint64_t recordSize) {
    double const scale = Picture::kInner / static_cast<double>(recordSize);
    double const top = picture.Top();
    std::vector<Label> labels;
    for (std::size_t i = 0; i < sections.size(); ++i) {
        Section const& section = sections[i];
        double const x = Picture::kMargin + static_cast<double>(section.offset) * scale;
        double const width = static_cast<double>(section.size) * scale;
        std::string const size = GroupedCount(section.size, "byte");
        picture.Print("<rect class=\"section s{}\" x=\"{:.3f}\" y=\"{:.1f}\" width=\"{:.3f}\" height=\"{}\"><title>{}: "
                      "{} from byte {}</title></rect>\n",
                      i % kColours, x, top, width, kBarHeight, section.name, size, Grouped(section.offset));
        if (width < kNarrowest) {
            picture.Print("<rect class=\"mark s{}\" x=\"{:.3f}\" y=\"{:.1f}\" width=\"{}\" height=\"4\"/>\n",
                          i % kColours, x + (width - kNarrowest) / 2, top + kBarHeight, kNarrowest);
        }
        double const labelWidth = std::max(TextWidth(section.name.size()) * kStrong, TextWidth(size.size()));
        labels.push_back({x + width / 2, 0, labelWidth, size});
    }
    SpreadLabels(labels);
    double const bottom = top + kBarHeight + kLeadHeight;
    for (std::size_t i = 0; i < sections.size(); ++i) {
        Label const& label = labels[i];
        picture.Print("<path class=\"lead\" d=\"M{0:.1f} {2:.1f}v8L{1:.1f} {3:.1f}v6\"/>\n", label.at, label.middle,
                      top + kBarHeight, bottom - 6);
        picture.Text(label.middle, bottom + 14, "strong middle", sections[i].name);
        picture.Text(label.middle, bottom + 30, "small weak middle", label.size);
    }
    picture.MoveDown(kBarHeight + kLeadHeight + 34);
}

} // namespace crrecord::tool
