// crrecord freed: the records, segments and containers that a store no longer needs without some references.

#include "record/record_findings.h"
#include "record/references.h"
#include "store/container_report.h"
#include "verbs/store_options.h"

namespace crrecord::tool {

namespace {

struct FreedOptions : StoreOptions {
    std::vector<std::string> references;
};

std::vector<DOReference> Parse(std::vector<std::string> const& texts) {
    std::vector<DOReference> references;
    for (std::string const& text : texts) {
        Reference const reference = ParseReference(text);
        if (!reference) {
            throw Failure(fmt::format("--reference: found \"{}\", expected {}", Printable(text), kReferenceForm));
        }
        references.push_back({CRTRefGetType(reference.get()), CRTRefGetID(reference.get())});
    }
    return references;
}

ExitCode Freed(FreedOptions const& options, Output& out) {
    StoreScan scan({.heldOnly = true, .dropped = Parse(options.references)}, options.ForPartitions(), Complain);
    ExitCode const result = ScanStore(scan, options);
    if (!AnyRecord(scan) && !options.json) {
        return result;
    }
    FreedReport report(scan.Totals());
    bool hasHeading = false;
    static constexpr char kRow[] = "{:>20}  {:>12}  {:>20}{}\n";
    scan.Containers().ForEach([&](ContainerSums const& sums) {
        report.Add(sums);
        Loss const loss(sums);
        if (options.json) {
            report.PrintLine(out, sums);
        } else if (loss.Any()) {
            if (!std::exchange(hasHeading, true)) {
                out.Print(kRow, "container", "segments", "bytes", "");
            }
            out.Print(kRow, sums.dcid, loss.needed.segments, loss.needed.bytes, loss.dead ? "  dead" : "");
        }
    });
    if (options.json) {
        report.PrintTotal(out, scan.Containers().Conflicts());
    } else {
        out.Print("{} would lose the last reference: {} of {} freed, {} dead\n", Counted(report.Records(), "record"),
                  Counted(report.needed.segments, "segment"), WithUnit(report.needed.bytes),
                  Counted(report.dead, "container"));
        PrintFaults(out, scan);
    }
    return result;
}

} // namespace

void AddFreed(CLI::App& app, Action& chosen) {
    auto const [verb, options] =
        AddVerb(app, chosen, "freed", "Report what a store would no longer need without some references", Freed);
    AddStoreOptions(verb, options);
    AddTexts(verb, "--reference", options.references, "Drop this reference everywhere; may be repeated")
        ->expected(1)
        ->required()
        ->type_name("REF");
    verb.footer("Only records that have a reference count. Containers that lose nothing are not listed.\n\n"
                "Example:\n  crrecord freed --reference task:17 objects.do");
}

} // namespace crrecord::tool
