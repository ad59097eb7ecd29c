// crrecord freed: the records, segments and containers that a store no longer needs without some references.

#include "record/record_findings.h"
#include "record/references.h"
#include "verbs/store_options.h"

namespace crrecord::tool {

namespace {

struct FreedOptions : StoreOptions {
    std::vector<std::string> references;
};

// The loss of a container.
struct Loss {
    explicit Loss(ContainerSums const& sums)
        : needed{sums.first.segments - sums.second.segments, sums.first.bytes - sums.second.bytes},
          bloomBytes(sums.bloomBytes), ownBytes(sums.ownBytes), dead(sums.records == 0) {}

    bool Any() const { return needed.segments != 0 || needed.bytes != 0 || bloomBytes != 0 || ownBytes != 0 || dead; }

    SegmentSums needed;
    std::uint64_t bloomBytes;
    std::uint64_t ownBytes;
    bool dead; // no record that is held afterwards needs it
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
    SegmentSums total;
    std::uint64_t dead = 0;
    bool hasHeading = options.json;
    static constexpr char kRow[] = "{:>20}  {:>12}  {:>20}{}\n";
    scan.Containers().ForEach([&](ContainerSums const& sums) {
        Loss const loss(sums);
        if (!loss.Any()) {
            return;
        }
        if (options.json) {
            out.Print(R"({},"dcid":{},"segments":{},"bytes":{},"bloom_bytes":{},"own_bytes":{},"dead":{}}})"
                      "\n",
                      JsonStart(), Decimal{sums.dcid}, Decimal{loss.needed.segments}, Decimal{loss.needed.bytes},
                      Decimal{loss.bloomBytes}, Decimal{loss.ownBytes}, loss.dead);
        } else {
            if (!std::exchange(hasHeading, true)) {
                out.Print(kRow, "container", "segments", "bytes", "");
            }
            out.Print(kRow, sums.dcid, loss.needed.segments, loss.needed.bytes, loss.dead ? "  dead" : "");
        }
        Add(total, loss.needed);
        dead += loss.dead ? 1 : 0;
    });
    std::uint64_t const records = scan.Totals().inFirst - scan.Totals().inSecond;
    if (options.json) {
        PrintJsonTotal(out, scan,
                       fmt::format(R"("records":{},"segments":{},"bytes":{},"containers":{})", Decimal{records},
                                   Decimal{total.segments}, Decimal{total.bytes}, Decimal{dead}));
    } else {
        out.Print("{} would lose the last reference: {} of {} freed, {} dead\n", Counted(records, "record"),
                  Counted(total.segments, "segment"), WithUnit(total.bytes), Counted(dead, "container"));
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
