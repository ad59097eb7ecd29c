// crrecord recall: the containers that a restore of some records fetches.

#include "record/record_findings.h"
#include "store/container_cache.h"
#include "store/container_report.h"
#include "verbs/store_options.h"

namespace crrecord::tool {

namespace {

struct RecallOptions : StoreOptions {
    std::uint64_t cache = 0; // containers; 0 if the number of fetches was not requested
};

ExitCode Recall(RecallOptions const& options, Output& out) {
    // The records are already read, so their own containers are not fetched.
    StoreScan scan({.dropped = {}, .ownContainers = false}, options.ForPartitions(), Complain);
    ContainerCache cache(options.cache);
    if (options.cache != 0) {
        scan.useFragment = [&cache](std::uint64_t dcid) { cache.Use(dcid); };
    }
    ExitCode const result = ScanStore(scan, options);
    if (!AnyRecord(scan) && !options.json) {
        return result;
    }
    RecallReport report(scan.Totals());
    static constexpr char kRow[] = "{:>20}  {:>12}  {:>20}  {:>9}\n";
    StoreContainers const& containers = scan.Containers();
    if (!options.json && containers.size() != 0) {
        out.Print(kRow, "container", "segments", "bytes", "records");
    }
    for (std::uint64_t i = 0; i < containers.size(); ++i) {
        ContainerSums const& sums = containers[i];
        report.Add(sums);
        if (options.json) {
            report.PrintLine(out, sums);
        } else {
            out.Print(kRow, sums.dcid, sums.first.segments, sums.first.bytes, sums.records);
        }
    }
    if (options.json) {
        report.fetches = options.cache != 0 ? std::optional(cache.Fetches()) : std::nullopt;
        report.PrintTotal(out, containers.Conflicts());
    } else {
        out.Print("{}: {} of {} in {}\n", Counted(scan.Totals().records, "record"),
                  Counted(report.needed.segments, "segment"), WithUnit(report.needed.bytes),
                  Counted(containers.size(), "container"));
        if (options.cache != 0) {
            out.Print("fetches with a cache of {}: {}\n", Counted(options.cache, "container"), cache.Fetches());
        }
        PrintFaults(out, scan);
    }
    return result;
}

} // namespace

void AddRecall(CLI::App& app, Action& chosen) {
    auto const [verb, options] =
        AddVerb(app, chosen, "recall", "List the containers that some records need, in the order of a restore", Recall);
    AddStoreOptions(verb, options);
    verb.add_option("--cache", options.cache,
                    "Also count the fetches of a restore that keeps the last N containers; "
                    "needs 100 bytes of memory for each")
        ->check(WholeNumber(std::numeric_limits<std::uint32_t>::max()))
        ->type_name("N");
    verb.footer("Each segment counts once.\n\nExample:\n  crrecord recall --cache 8 movie.do");
}

} // namespace crrecord::tool
