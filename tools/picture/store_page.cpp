#include "picture/store_page.h"

#include <algorithm>
#include <vector>

namespace crrecord::tool {

namespace {

// Colours are those of the reader's choice of light or dark; the width is that of the window.
constexpr char kHead[] = R"(<!doctype html>
<html lang="en">
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta http-equiv="Content-Security-Policy" content="default-src 'none'; style-src 'unsafe-inline'">
<title>Store</title>
<style>
:root { color-scheme: light dark; --text: #1a1a1a; --back: #fff; --rule: #d0d0d0; --bar: #2f6fb0; --bad: #b3261e; }
@media (prefers-color-scheme: dark) {
  :root { --text: #e8e8e8; --back: #16181b; --rule: #44484e; --bar: #6ea8dc; --bad: #f2867f; }
}
body { font: 16px/1.4 system-ui, sans-serif; color: var(--text); background: var(--back); margin: 1rem auto;
       max-width: 72rem; padding: 0 1rem; }
main { columns: 2 30rem; column-gap: 3rem; } section { break-inside: avoid; } h2 { margin-top: 0; padding-top: .8rem; }
h1 { font-size: 1.4rem; } h2 { font-size: 1.1rem; }
table { border-collapse: collapse; width: 100%; font-variant-numeric: tabular-nums; }
th, td { padding: .15rem .4rem; text-align: right; border-bottom: 1px solid var(--rule); font-weight: normal; }
th, td { white-space: nowrap; }
th:first-child, td:first-child { text-align: left; padding-left: 0; } th:last-child, td:last-child { padding-right: 0; }
td.bar { width: 60%; }
td.bar div { height: .9rem; border-radius: 2px; background: var(--bar); }
dl { display: grid; gap: .6rem; grid-template-columns: repeat(auto-fit, minmax(8rem, 1fr)); }
dl div { border: 1px solid var(--rule); border-radius: 6px; padding: .4rem .7rem; }
dt { font-size: .875rem; } dd { margin: 0; font-size: 1.2rem; font-variant-numeric: tabular-nums; }
.bad, .bad dd, tr.bad th, tr.bad td { color: var(--bad); } tr.bad td.bar div { background: var(--bad); }
</style>
)";

struct Bar {
    std::string name;
    std::uint64_t value;
    std::string text;
    bool bad = false;
};

// Bars are relative to the greatest.
void WriteBars(Output& out, char const* title, std::vector<Bar> const& bars) {
    std::uint64_t greatest = 1;
    for (Bar const& bar : bars) {
        greatest = std::max(greatest, bar.value);
    }
    out.Print("<section>\n<h2>{0}</h2>\n<table aria-label=\"{0}\">\n", title);
    for (Bar const& bar : bars) {
        out.Print("<tr{}><th scope=\"row\">{}</th><td class=\"bar\"><div style=\"width:{:.1f}%\"></div></td>"
                  "<td>{}</td></tr>\n",
                  bar.bad && bar.value != 0 ? " class=\"bad\"" : "", bar.name,
                  100 * static_cast<double>(bar.value) / static_cast<double>(greatest), bar.text);
    }
    out.Write("</table>\n</section>\n");
}

struct PageSums {
    std::uint64_t needed = 0;
    std::uint64_t gain = 0;
    std::uint64_t missing = 0;
    std::uint64_t missingSegments = 0;
    std::uint64_t dead = 0;
    std::uint64_t deadBytes = 0;
    std::array<std::uint64_t, 10> byPart{}; // containers with needed bytes, by tenths of the stored ones
};

PageSums SumsOf(StoreContainers const& containers, unsigned int sparsePercent) {
    PageSums sums;
    for (std::uint64_t i = 0; i < containers.size(); ++i) {
        ContainerSums const& container = containers[i];
        AddBytes(sums.needed, container.first.bytes);
        AddBytes(sums.gain, GainOf(container));
        AddBytes(sums.missing, container.onlyFirst.bytes);
        sums.missingSegments += container.onlyFirst.segments;
        if (StateOf(container, sparsePercent) == ContainerState::Dead) {
            ++sums.dead;
            AddBytes(sums.deadBytes, container.second.bytes);
        } else if (container.second.bytes != 0 && container.isInBloom == 0) {
            double const part =
                static_cast<double>(container.first.bytes) / static_cast<double>(container.second.bytes);
            ++sums.byPart[static_cast<std::size_t>(std::min(part * 10, 9.0))];
        }
    }
    return sums;
}

void WriteParts(Output& out, PageSums const& sums) {
    std::vector<Bar> bars{{"dead", sums.dead, fmt::to_string(sums.dead)}};
    for (std::size_t i = 0; i < sums.byPart.size(); ++i) {
        bars.push_back(
            {fmt::format("{} to {} %", 10 * i, 10 * i + 10), sums.byPart[i], fmt::to_string(sums.byPart[i])});
    }
    WriteBars(out, "Number of containers by their needed part", bars);
}

void WriteObjects(Output& out, StoreTotals const& totals) {
    std::vector<Bar> bars;
    for (std::size_t i = 0; i < totals.objectsByContainers.size(); ++i) {
        std::uint64_t const count = totals.objectsByContainers[i];
        if (count != 0) {
            std::uint64_t const least = std::uint64_t{1} << i;
            bars.push_back(
                {i == 0 ? "1" : fmt::format("{} to {}", least, 2 * least - 1), count, fmt::to_string(count)});
        }
    }
    WriteBars(out, "Fragmentation: objects by their number of containers", bars);
}

void WriteSparsest(Output& out, StoreContainers& containers, unsigned int sparsePercent) {
    constexpr unsigned int kMost = 20;
    out.Write("<section>\n<h2>Best to compact</h2>\n<table aria-label=\"Best to compact\">\n<tr><th "
              "scope=\"col\">container</th>"
              "<th scope=\"col\">state</th><th scope=\"col\">needed</th><th scope=\"col\">gain</th></tr>\n");
    unsigned int count = 0;
    containers.ForEachSorted(IsSparser, [&](ContainerSums const& sums) {
        if (count < kMost && GainOf(sums) != 0) {
            ++count;
            out.Print("<tr><td>{}</td><td>{}</td><td>{}</td><td>{}</td></tr>\n", sums.dcid,
                      NameOf(StateOf(sums, sparsePercent)), InUnits(sums.first.bytes), InUnits(GainOf(sums)));
        }
    });
    out.Write("</table>\n</section>\n");
}

void WriteFigure(Output& out, char const* name, std::string const& text, bool bad = false) {
    out.Print("<div{}><dt>{}</dt><dd>{}</dd></div>\n", bad ? " class=\"bad\"" : "", name, text);
}

// The sums, and first what needs attention.
void WriteSummary(Output& out, StoreScan& scan, PageSums const& sums) {
    StoreTotals const& totals = scan.Totals();
    bool const hasStored = totals.segmentRecords != 0;
    std::uint64_t const conflicts = scan.Containers().Conflicts();
    if (hasStored && sums.missingSegments != 0) {
        out.Print("<p class=\"bad\">Data is missing: {} of {} needed and not stored.</p>\n",
                  Counted(sums.missingSegments, "segment"), InUnits(sums.missing));
    }
    if (!totals.isComplete) {
        out.Write("<p class=\"bad\">Incomplete: a record that was not read may need a dead container.</p>\n");
    }
    out.Write("<dl>\n");
    WriteFigure(out, "records", fmt::to_string(totals.records));
    WriteFigure(out, "held records", fmt::to_string(totals.held));
    WriteFigure(out, "containers", fmt::to_string(scan.Containers().size()));
    WriteFigure(out, "needed", InUnits(sums.needed));
    if (hasStored) {
        WriteFigure(out, "dead containers", fmt::to_string(sums.dead));
        WriteFigure(out, "dead bytes", InUnits(sums.deadBytes));
        WriteFigure(out, "not needed", InUnits(sums.gain));
        WriteFigure(out, "segment records", fmt::to_string(totals.segmentRecords));
    }
    if (totals.bad != 0) {
        WriteFigure(out, "bad records, not counted", fmt::to_string(totals.bad), true);
    }
    if (conflicts != 0) {
        WriteFigure(out, "segments with several sizes", fmt::to_string(conflicts), true);
    }
    out.Write("</dl>\n");
}

} // namespace

void WriteStorePage(Output& out, StoreScan& scan, unsigned int sparsePercent) {
    StoreTotals const& totals = scan.Totals();
    PageSums const sums = SumsOf(scan.Containers(), sparsePercent);
    bool const hasStored = totals.segmentRecords != 0;
    out.Write(kHead);
    out.Write("<h1>Live data of a store</h1>\n");
    WriteSummary(out, scan, sums);
    out.Write("<main>\n");
    if (hasStored) {
        WriteBars(out, "Bytes",
                  {{"live", sums.needed - sums.missing, InUnits(sums.needed - sums.missing)},
                   {"not needed", sums.gain, InUnits(sums.gain)},
                   {"missing", sums.missing, InUnits(sums.missing), true}});
        WriteParts(out, sums);
    } else {
        WriteBars(out, "Bytes", {{"needed", sums.needed, InUnits(sums.needed)}});
    }
    WriteObjects(out, totals);
    if (hasStored) {
        WriteSparsest(out, scan.Containers(), sparsePercent);
    }
    out.Write("</main>\n</html>\n");
}

} // namespace crrecord::tool
