// crrecord segments build: the segment records of a real file.

#include "record/cut.h"
#include "record/record_findings.h"
#include "verbs/verbs.h"

#include "SOmarshall/layout.h"

#include <crrecord/SORecord.h>

#include <array>

namespace crrecord::tool {

namespace {

struct BuildOptions {
    std::string file;
    std::string out;
    CutOptions cut;
    bool json = false;
};

// The fixed part comes from SORecord; the fingerprint follows it, and the spare slot stays zero.
void WriteRecord(OutputFile& out, CutSegment const& cut, unsigned char fptype) {
    static constexpr char kNoKey[CR_SO_KEY_SIZE] = {};
    SORecord const fixed(0, cut.container, static_cast<unsigned int>(cut.size), cut.crc, kNoKey, 0, fptype);
    std::array<unsigned char, segment::RecordSize(0, 1, CR_FP_TYPE_SHA256)> bytes{};
    std::memcpy(bytes.data(), fixed.GetHeader(), CR_SO_FIXED_SIZE);
    std::memcpy(bytes.data() + segment::FingerprintOffset(0), cut.fingerprint.bytes, CRFPDigestSize(fptype));
    auto* const record = reinterpret_cast<_SegmentDBRecord*>(bytes.data());
    std::uint64_t const size = segment::RecordSize(0, 1, fptype);
    record->nfp = 1;
    record->recsize = static_cast<unsigned int>(size);
    SegmentRecordHton(record, record, 0);
    out.Write(bytes.data(), size);
}

std::string ClosingLine(BuildOptions const& options, CutTotals const& totals) {
    std::uint64_t const recordSize = segment::RecordSize(0, 1, options.cut.fptype);
    std::uint64_t const recordBytes = totals.segments * recordSize;
    if (options.json) {
        return fmt::format(
            R"({},"file":{},"out":{},"bytes":"{}","segments":"{}","containers":"{}","first_container":"{}",)"
            R"("last_container":"{}","record_size":{},"record_bytes":"{}"}})",
            JsonStart(), JsonQuoted(options.file), JsonQuoted(options.out), totals.bytes, totals.segments,
            totals.Containers(), totals.firstContainer, totals.lastContainer, recordSize, recordBytes);
    }
    return fmt::format("{}: {} in {}, {} ({} to {}); {} of records to {}", Printable(options.file),
                       Counted(totals.bytes, "byte"), Counted(totals.segments, "segment"),
                       Counted(totals.Containers(), "container"), totals.firstContainer, totals.lastContainer,
                       Counted(recordBytes, "byte"), Printable(options.out));
}

ExitCode Build(BuildOptions const& options, Output& out) {
    Input input(options.file);
    RefuseToReplace({options.file}, options.out, "records");
    OutputFile records(options.out, {options.file});
    auto const fptype = static_cast<unsigned char>(options.cut.fptype);
    CutTotals const totals =
        Cut(input, options.cut, Holes::AreZeros, [&](CutSegment const& cut) { WriteRecord(records, cut, fptype); });
    records.Commit();
    PrintClosing(out, options.out, options.json, ClosingLine(options, totals));
    return ExitCode::AllWell;
}

void AddSegmentsBuild(CLI::App& segments, Action& chosen) {
    auto const options = std::make_shared<BuildOptions>();
    CLI::App* const verb = segments.add_subcommand("build", "Write a segment record for each segment of a file");
    AddFile(*verb, "FILE", options->file, "Any file; - is standard input")->required();
    AddFile(*verb, "-o,--out", options->out, "The file to write; - is standard output")->required()->type_name("OUT");
    AddCutOptions(*verb, options->cut);
    options->cut.segmentCrcs = true;
    verb->add_flag("--json", options->json, "The closing line as a JSON object");
    verb->footer(
        "Reads FILE once. Each record holds the segment's container, size, CRC-32 and fingerprint, and is in\n"
        "network order. Containers are filled one after the other. An empty FILE has no segments: status 2.\n\n"
        "Example:\n  crrecord segments build movie.mkv -o movie.seg");
    verb->callback([options, &chosen] { chosen = [options](Output& out) { return Build(*options, out); }; });
}

} // namespace

void AddSegments(CLI::App& app, Action& chosen) {
    CLI::App* const segments = app.add_subcommand("segments", "Segment records of a file");
    segments->require_subcommand(1);
    segments->footer("Example:\n  crrecord segments build movie.mkv -o movie.seg");
    AddSegmentsBuild(*segments, chosen);
}

} // namespace crrecord::tool
