// Any bytes as a file of records, with and without a scan. The blocks of the records, and the bytes not read, are the
// input. With a scan all bytes are read, each record after a gap is valid, and the work is bounded.

#include "tool_records.h"

namespace {

using namespace fuzz;

std::uint64_t checkedBytes = 0; // of the candidates of a scan

bool CountAndCheck(Record const& candidate) {
    checkedBytes += candidate.size;
    return IsValid(candidate);
}

void ReadAll(Bytes bytes, bool scans) {
    static NamedBytes const file;
    RecordStream stream(file.Holding(bytes.data(), bytes.size()));
    bool isAfterGap = false;
    std::uint64_t skipped = 0;
    stream.ReportGapsTo([&](Gap const& gap) {
        isAfterGap = !gap.isRest;
        skipped += gap.isRest ? 0 : gap.size.value();
    });
    checkedBytes = 0;
    if (scans) {
        stream.ScanWith(CountAndCheck);
    }
    Block seen;
    while (Record const* const record = stream.Next()) {
        Must(record->offset == seen.size(), "records without gaps between them");
        Must(!scans || !isAfterGap || IsValid(*record), "a valid record after a gap");
        isAfterGap = false;
        do {
            seen.insert(seen.end(), record->bytes, record->bytes + record->size);
        } while (stream.NextBlock());
    }
    Must(seen.size() + stream.UnreadBytes().value() == bytes.size() &&
             std::equal(seen.begin(), seen.end(), bytes.begin()),
         "the bytes of the input");
    Must(!scans || stream.UnreadBytes() == 0U, "a scan reads all bytes");
    Must(stream.SkippedBytes() == skipped && stream.BytesInRecords() + skipped == seen.size(), "sums of the gaps");
    Must(checkedBytes <= RecordStream::kScanWork * bytes.size(), "the work of a scan");
}

} // namespace

FUZZ_TARGET(scan, bytes) {
    ReadAll(bytes, false);
    ReadAll(bytes, true);
}
