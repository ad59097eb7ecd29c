// crrecord live: the needed containers of a store, and the needed bytes of each one.

#include "picture/store_page.h"
#include "record/record_findings.h"
#include "store/liveness.h"
#include "verbs/store_options.h"

namespace crrecord::tool {

namespace {

struct LiveOptions : StoreOptions {
    bool heldOnly = false;
    std::string page;
    unsigned int sparsePercent = 50;
    std::optional<std::uint64_t> top;
};

// The sums over all containers.
struct LiveTotals {
    SegmentSums needed;
    SegmentSums stored;
    SegmentSums missing;
    std::uint64_t uses = 0;
    std::uint64_t bloomBytes = 0;
    std::uint64_t dead = 0;
    std::uint64_t sparse = 0;
    std::uint64_t deadBytes = 0;
    std::uint64_t sparseGain = 0;
};

class Report {
public:
    Report(StoreScan& scan, LiveOptions const& options, Output& out)
        : scan_(scan), options_(options), out_(out), hasStored_(scan.Totals().segmentRecords != 0) {
        for (std::uint64_t i = 0; i < scan.Containers().size(); ++i) {
            Count(scan.Containers()[i]);
        }
    }

    bool IsMissing() const { return hasStored_ && totals_.missing.segments != 0; }

    void PrintJson() {
        scan_.Containers().ForEach([this](ContainerSums const& sums) { PrintLine(sums); });
        StoreTotals const& records = scan_.Totals();
        std::string total =
            fmt::format(R"("records":{},"held":{},"segments":{},"bytes":{},"uses":{},"containers":{})",
                        Decimal{records.records}, Decimal{records.held}, Decimal{totals_.needed.segments},
                        Decimal{totals_.needed.bytes}, Decimal{totals_.uses}, Decimal{scan_.Containers().size()});
        if (hasStored_) {
            total += fmt::format(R"(,"dead":{},"sparse":{},"stored_segments":{},"stored_bytes":{},)"
                                 R"("missing_segments":{},"missing_bytes":{})",
                                 Decimal{totals_.dead}, Decimal{totals_.sparse}, Decimal{totals_.stored.segments},
                                 Decimal{totals_.stored.bytes}, Decimal{totals_.missing.segments},
                                 Decimal{totals_.missing.bytes});
        }
        PrintJsonTotal(out_, scan_, total);
    }

    void PrintTable() {
        std::uint64_t left = options_.top.value_or(scan_.Containers().size());
        if (left != 0 && scan_.Containers().size() != 0) {
            hasStored_ ? out_.Print(kStoredRow, "container", "state", "needed bytes", "stored bytes", "used", "gain")
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

    void Count(ContainerSums const& sums) {
        Add(totals_.needed, sums.first);
        Add(totals_.stored, sums.second);
        Add(totals_.missing, sums.onlyFirst);
        totals_.uses += sums.uses;
        AddBytes(totals_.bloomBytes, sums.bloomBytes);
        ContainerState const state = StateOf(sums, options_.sparsePercent);
        totals_.dead += state == ContainerState::Dead ? 1 : 0;
        totals_.deadBytes += state == ContainerState::Dead ? sums.second.bytes : 0;
        totals_.sparse += state == ContainerState::Sparse ? 1 : 0;
        totals_.sparseGain += state == ContainerState::Sparse ? GainOf(sums) : 0;
    }

    void PrintLine(ContainerSums const& sums) {
        out_.Print(R"({},"dcid":{},"segments":{},"bytes":{},"uses":{},"records":{},"bloom_bytes":{},)"
                   R"("own_bytes":{})",
                   JsonStart(), Decimal{sums.dcid}, Decimal{sums.first.segments}, Decimal{sums.first.bytes},
                   Decimal{sums.uses}, Decimal{sums.records}, Decimal{sums.bloomBytes}, Decimal{sums.ownBytes});
        if (hasStored_) {
            out_.Print(R"(,"stored_segments":{},"stored_bytes":{},"missing_segments":{},"missing_bytes":{},)"
                       R"("state":"{}")",
                       Decimal{sums.second.segments}, Decimal{sums.second.bytes}, Decimal{sums.onlyFirst.segments},
                       Decimal{sums.onlyFirst.bytes}, NameOf(StateOf(sums, options_.sparsePercent)));
        }
        out_.Write("}\n");
    }

    void PrintRow(ContainerSums const& sums) {
        if (!hasStored_) {
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
                   Counted(totals_.needed.segments, "segment"), WithUnit(totals_.needed.bytes),
                   Counted(scan_.Containers().size(), "container"));
        if (totals_.bloomBytes != 0) {
            out_.Print("of bloom records, which do not name their segments: {}\n", WithUnit(totals_.bloomBytes));
        }
        if (hasStored_) {
            out_.Print("stored: {} of {}\n", Counted(totals_.stored.segments, "segment"),
                       WithUnit(totals_.stored.bytes));
            out_.Print("dead: {} of {}\n", Counted(totals_.dead, "container"), WithUnit(totals_.deadBytes));
            out_.Print("sparse: {}; compacting gains {}\n", Counted(totals_.sparse, "container"),
                       WithUnit(totals_.sparseGain));
        }
        if (IsMissing()) {
            out_.PaintLine(fmt::format("missing: {} of {}", Counted(totals_.missing.segments, "segment"),
                                       WithUnit(totals_.missing.bytes)),
                           Colour::Bad);
        }
        PrintFaults(out_, scan_);
        if (!records.isComplete) {
            out_.PaintLine("incomplete: a record that was not read may need a container that is dead or sparse here",
                           Colour::Bad);
        }
    }

    StoreScan& scan_;
    LiveOptions const& options_;
    Output& out_;
    bool hasStored_;
    LiveTotals totals_;
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
    Report report(scan, options, out);
    options.json ? report.PrintJson() : report.PrintTable();
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
