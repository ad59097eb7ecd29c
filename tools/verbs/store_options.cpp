#include "verbs/store_options.h"

#include "record/cut_options.h"
#include "record/record_findings.h"

#include <cstdlib>

namespace crrecord::tool {

PartitionOptions StoreOptions::ForPartitions() const {
    std::string folder = temporaryFolder;
    if (folder.empty()) {
        char const* const named = std::getenv("TMPDIR");
        folder = named && *named != '\0' ? named : "/tmp";
    }
    return {memory, Processors(), folder};
}

void AddStoreOptions(CLI::App& verb, StoreOptions& options) {
    AddFiles(verb, options.files);
    constexpr std::uint64_t kMost = std::uint64_t{1} << 46; // of the addresses of a process
    verb.add_option("--memory", options.memory, "Bytes of memory for segments, such as 1G; more go to temporary files")
        ->transform(NumberOfBytes(Partitions::kLeastMemory, kMost))
        ->type_name("BYTES")
        ->default_str("256M");
    AddFile(verb, "--temp", options.temporaryFolder, "The folder for temporary files [$TMPDIR or /tmp]")
        ->type_name("DIR");
    AddScan(verb, options.form);
    verb.add_flag("--json", options.json, "One JSON object on a line for each result, and one for the total");
}

ExitCode ScanStore(StoreScan& scan, StoreOptions const& options) {
    ExitCode result = ForEachInput(options.files, options.form, nullptr, [&](RecordStream& stream) {
        scan.Scan(stream);
        return ExitCode::AllWell;
    });
    scan.Total();
    if (result != ExitCode::AllWell || scan.Totals().bad != 0) {
        scan.MarkIncomplete();
    }
    bool const faulty = scan.Totals().bad != 0 || scan.Containers().Conflicts() != 0;
    return std::max(result, faulty ? ExitCode::BadRecord : ExitCode::AllWell);
}

bool AnyRecord(StoreScan const& scan) {
    StoreTotals const& totals = scan.Totals();
    return totals.records + totals.segmentRecords + totals.bad != 0;
}

void PrintFaults(Output& out, StoreScan& scan) {
    StoreTotals const& totals = scan.Totals();
    if (std::uint64_t const conflicts = scan.Containers().Conflicts(); conflicts != 0) {
        out.PaintLine(fmt::format("conflicts: {} with several sizes", Counted(conflicts, "segment")), Colour::Bad);
    }
    if (totals.bad != 0) {
        out.PaintLine(fmt::format("bad: {}, not counted", Counted(totals.bad, "record")), Colour::Bad);
    }
    PrintGaps(out, totals.gaps);
}

} // namespace crrecord::tool
