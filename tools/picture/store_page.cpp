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
main { display: grid; gap: 0 3rem; grid-template-columns: repeat(auto-fit, minmax(min(100%, 30rem), 1fr)); }
h1 { font-size: 1.4rem; } h2 { font-size: 1.1rem; }
table { border-collapse: collapse; width: 100%; font-variant-numeric: tabular-nums; }
th, td { padding: .15rem .4rem; text-align: right; border-bottom: 1px solid var(--rule); font-weight: normal; }
th:first-child, td:first-child { text-align: left; white-space: nowrap; }
td.bar { width: 45%; }
td.bar div { height: .9rem; background: var(--bar); }
tr.bad th, tr.bad td { color: var(--bad); } tr.bad td.bar div { background: var(--bad); }
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
    out.Print("<section>\n<h2>{}</h2>\n<table>\n", title);
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
    std::uint64_t dead = 0;
    std::array<std::uint64_t, 10> byPart{}; // containers with needed bytes, by tenths of the stored ones
};

PageSums SumsOf(StoreContainers const& containers, unsigned int sparsePercent) {
    PageSums sums;
    for (std::uint64_t i = 0; i < containers.size(); ++i) {
        ContainerSums const& container = containers[i];
        AddBytes(sums.needed, container.first.bytes);
        AddBytes(sums.gain, GainOf(container));
        AddBytes(sums.missing, container.onlyFirst.bytes);
        if (StateOf(container, sparsePercent) == ContainerState::Dead) {
            ++sums.dead;
        } else if (container.second.bytes != 0 && container.isInBloom == 0) {
            double const part =
                static_cast<double>(container.first.bytes) / static_cast<double>(container.second.bytes);
            ++sums.byPart[static_cast<std::size_t>(std::min(part * 10, 9.0))];
        }
    }
    return sums;
}

void WriteParts(Output& out, PageSums const& sums) {
    std::vector<Bar> bars{{"dead", sums.dead, Counted(sums.dead, "container")}};
    for (std::size_t i = 0; i < sums.byPart.size(); ++i) {
        bars.push_back(
            {fmt::format("{} to {} %", 10 * i, 10 * i + 10), sums.byPart[i], Counted(sums.byPart[i], "container")});
    }
    WriteBars(out, "Containers by their needed part", bars);
}

void WriteObjects(Output& out, StoreTotals const& totals) {
    std::vector<Bar> bars;
    for (std::size_t i = 0; i < totals.objectsByContainers.size(); ++i) {
        std::uint64_t const count = totals.objectsByContainers[i];
        if (count != 0) {
            std::uint64_t const least = std::uint64_t{1} << i;
            bars.push_back(
                {i == 0 ? "1" : fmt::format("{} to {}", least, 2 * least - 1), count, Counted(count, "object")});
        }
    }
    WriteBars(out, "Objects by their number of containers", bars);
}

void WriteSparsest(Output& out, StoreContainers& containers, unsigned int sparsePercent) {
    constexpr unsigned int kMost = 20;
    out.Write("<section>\n<h2>Best to compact</h2>\n<table>\n<tr><th scope=\"col\">container</th>"
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

} // namespace

void WriteStorePage(Output& out, StoreScan& scan, unsigned int sparsePercent) {
    StoreTotals const& totals = scan.Totals();
    PageSums const sums = SumsOf(scan.Containers(), sparsePercent);
    bool const hasStored = totals.segmentRecords != 0;
    out.Write(kHead);
    out.Print("<h1>{} and {} in {}</h1>\n", Counted(totals.records, "record"),
              Counted(totals.segmentRecords, "segment record"), Counted(scan.Containers().size(), "container"));
    if (totals.bad != 0 || scan.Containers().Conflicts() != 0) {
        out.Print("<p>{} not counted; {} with several sizes.</p>\n", Counted(totals.bad, "bad record"),
                  Counted(scan.Containers().Conflicts(), "segment"));
    }
    out.Write("<main>\n");
    if (hasStored) {
        WriteBars(out, "Bytes",
                  {{"live", sums.needed - sums.missing, InUnits(sums.needed - sums.missing)},
                   {"not needed", sums.gain, InUnits(sums.gain)},
                   {"missing", sums.missing, InUnits(sums.missing), true}});
        WriteParts(out, sums);
        WriteSparsest(out, scan.Containers(), sparsePercent);
    } else {
        WriteBars(out, "Bytes", {{"needed", sums.needed, InUnits(sums.needed)}});
    }
    WriteObjects(out, totals);
    out.Write("</main>\n</html>\n");
}

} // namespace crrecord::tool
