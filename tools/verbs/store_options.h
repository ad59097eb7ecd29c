// What the verbs about whole stores have in common.

#pragma once

#include "store/scan.h"
#include "verbs/verbs.h"

namespace crrecord::tool {

struct StoreOptions {
    std::vector<std::string> files{"-"};
    FormOptions form; // without its form
    std::uint64_t memory = 256UL * 1024 * 1024;
    std::string temporaryFolder; // empty: $TMPDIR or /tmp
    bool json = false;

    PartitionOptions ForPartitions() const;
};

void AddStoreOptions(CLI::App& verb, StoreOptions& options);

// Scans all inputs and counts. Returns: the exit code by the inputs and their records.
ExitCode ScanStore(StoreScan& scan, StoreOptions const& options);

// Whether a record was read, valid or not. Without one there is nothing to report.
bool AnyRecord(StoreScan const& scan);

// Prints segments that have several sizes, bad records, and bytes that are in no record.
void PrintFaults(Output& out, StoreScan& scan);

} // namespace crrecord::tool
