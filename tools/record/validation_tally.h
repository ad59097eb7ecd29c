// Counts of validated records, and their JSON line.

#pragma once

#include "record/record_findings.h"

namespace crrecord::tool {

struct ValidationTally {
    std::uint64_t records = 0;
    std::uint64_t bad = 0;
    std::uint64_t notes = 0;
    std::uint64_t bytes = 0;
    GapSums gaps;

    void Add(bool valid, std::size_t findings) {
        ++records;
        bad += valid ? 0 : 1;
        notes += valid ? findings : 0;
    }
    void Add(ValidationTally const& more) {
        records += more.records;
        bad += more.bad;
        notes += more.notes;
    }
    // Call it after the last record of an input.
    void AddSizes(RecordStream const& stream) {
        bytes += stream.BytesInRecords();
        gaps.Add(stream);
    }

    // Prints the closing line.
    void PrintJson(Output& out, std::uint64_t files) const {
        out.Print(R"({},"files":{},"records":{},"bad_records":{},"notes":{},"bytes":{},)"
                  R"("skipped_bytes":{},"unread_bytes":{}}})"
                  "\n",
                  JsonStart(), Decimal{files}, Decimal{records}, Decimal{bad}, Decimal{notes}, Decimal{bytes},
                  Decimal{gaps.skipped}, JsonNumber(gaps.unread));
    }
};

} // namespace crrecord::tool
