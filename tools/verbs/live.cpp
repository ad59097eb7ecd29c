// crrecord live: the needed containers of a store, and the needed bytes of each one.

#include "picture/store_page.h"
#include "record/record_findings.h"
#include "store/container_report.h"
#include "verbs/store_options.h"

namespace crrecord::tool {

namespace {

struct LiveOptions : StoreOptions {
    bool heldOnly = false;
    std::string page;
    unsigned int sparsePercent = 50;
    std::optional<std::uint64_t> top;
};

class Table {
public:
    Table(StoreScan& scan, LiveReport const& report, LiveOptions const& options, Output& out)
        : scan_(scan), report_(report), options_(options), out_(out) {}

    void Print() {
        std::uint64_t left = options_.top.value_or(scan_.Containers().size());
        if (left != 0 && scan_.Containers().size() != 0) {
            report_.HasStored()
                ? out_.Print(kStoredRow, "container", "state", "needed bytes", "stored bytes", "used", "gain")
                : out_.Print(kRow, "container", "segments", "bytes", "uses", "records");
        }
        scan_.Containers().ForEachSorted(IsSparser, [&](ContainerSums const& sums) {
            if (left != 0) {
                --left;
                PrintRow(sums);
            }
        });
        PrintTotals();
    }

private:
    static constexpr char kStoredRow[] = "{:>20}  {:<6}  {:>16}  {:>16}  {:>5}  {:>16}\n";
    static constexpr char kRow[] = "{:>20}  {:>12}  {:>20}  {:>12}  {:>9}\n";

    void PrintRow(ContainerSums const& sums) {
        if (!report_.HasStored()) {
            out_.Print(kRow, sums.dcid, sums.first.segments, sums.first.bytes, sums.uses, sums.records);
            return;
        }
        std::string const used = sums.second.bytes == 0
                                     ? "-"
                                     : fmt::format("{:.0f} %", 100 * static_cast<double>(sums.first.bytes) /
                                                                   static_cast<double>(sums.second.bytes));
        out_.Print(kStoredRow, sums.dcid, NameOf(StateOf(sums, options_.sparsePercent)), sums.first.bytes,
                   sums.second.bytes, used, GainOf(sums));
    }

    void PrintTotals() {
        StoreTotals const& records = scan_.Totals();
        out_.Print("\n{}, {} held: {} of {} needed in {}\n", Counted(records.records, "record"), records.held,
                   Counted(report_.needed.segments, "segment"), WithUnit(report_.needed.bytes),
                   Counted(scan_.Containers().size(), "container"));
        if (report_.bloomBytes != 0) {
            out_.Print("of bloom records, which do not name their segments: {}\n", WithUnit(report_.bloomBytes));
        }
        if (report_.HasStored()) {
            out_.Print("stored: {} of {}\n", Counted(report_.stored.segments, "segment"),
                       WithUnit(report_.stored.bytes));
            out_.Print("dead: {} of {}\n", Counted(report_.dead, "container"), WithUnit(report_.deadBytes));
            out_.Print("sparse: {}; compacting gains {}\n", Counted(report_.sparse, "container"),
                       WithUnit(report_.sparseGain));
        }
        if (report_.IsMissing()) {
            out_.PaintLine(fmt::format("missing: {} of {}", Counted(report_.missing.segments, "segment"),
                                       WithUnit(report_.missing.bytes)),
                           Colour::Bad);
        }
        PrintFaults(out_, scan_);
        if (!records.isComplete) {
            out_.PaintLine("incomplete: a record that was not read may need a container that is dead or sparse here",
                           Colour::Bad);
        }
    }

    StoreScan& scan_;
    LiveReport const& report_;
    LiveOptions const& options_;
    Output& out_;
};

ExitCode Live(LiveOptions const& options, Output& out) {
    Question const question{.heldOnly = options.heldOnly, .stored = true, .dropped = {}};
    RefuseToReplace(options.files, options.page, "page");
    std::optional<OutputFile> page;
    if (!options.page.empty()) {
        page.emplace(options.page, options.files);
    }
    StoreScan scan(question, options.ForPartitions(), Complain);
    ExitCode const result = ScanStore(scan, options);
    if (!AnyRecord(scan) && !options.json) {
        return result;
    }
    LiveReport report(scan.Totals(), options.sparsePercent);
    StoreContainers& containers = scan.Containers();
    for (std::uint64_t i = 0; i < containers.size(); ++i) {
        report.Add(containers[i]);
    }
    if (options.json) {
        containers.ForEach([&](ContainerSums const& sums) { report.PrintLine(out, sums); });
        report.PrintTotal(out, containers.Conflicts());
    } else {
        Table(scan, report, options, out).Print();
    }
    if (page) {
        WriteStorePage(page->Text(), scan, options.sparsePercent);
        page->Commit();
    }
    return std::max(result, report.IsMissing() ? ExitCode::BadRecord : ExitCode::AllWell);
}

} // namespace

void AddLive(CLI::App& app, Action& chosen) {
    auto const [verb, options] =
        AddVerb(app, chosen, "live", "Report what a store's records need of each container", Live);
    AddStoreOptions(verb, options);
    verb.add_flag("--held", options.heldOnly, "Count only records that have a reference");
    verb.add_option("--sparse", options.sparsePercent, "A container with fewer needed bytes is sparse")
        ->check(WholeNumber(100))
        ->type_name("PERCENT")
        ->capture_default_str();
    verb.add_option_function<std::uint64_t>(
            "--top", [&options = options](std::uint64_t count) { options.top = count; },
            "Only the N containers to compact first, without --json")
        ->check(WholeNumber(std::numeric_limits<std::uint64_t>::max()))
        ->type_name("N");
    AddFile(verb, "--html", options.page, "Also write a page with charts for browsers")->type_name("OUT");
    verb.footer(
        "DO records say which segments are needed, segment records which are stored. Each segment counts once.\n"
        "Status 1: a segment is needed and not stored, a segment has several sizes, or a record is bad.\n\n"
        "Example:\n  crrecord live --held --sparse 30 objects.do segments.so");
}

} // namespace crrecord::tool
