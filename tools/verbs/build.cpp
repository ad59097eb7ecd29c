// crrecord build and segments build: the DO record or the segment records of a file.

#include "record/cut_options.h"
#include "record/do_record.h"
#include "record/record_findings.h"
#include "verbs/verbs.h"

#include "SOmarshall/layout.h"
#include "support/layout/record_layout.h"

#include <crrecord/SORecord.h>

#include <array>

namespace crrecord::tool {

namespace {

constexpr unsigned int kLargestSegment = 0x7fffffff; // the library takes larger sizes for byte-swapped numbers

// segments build has no DO type, tasks and data selections.
struct BuildOptions {
    std::string file;
    std::string out;
    CutOptions cut;
    unsigned int dotype = CR_DO_TYPE_8_BYTE_OFFSET;
    std::vector<unsigned long> tasks;
    std::vector<unsigned int> dsids;
    bool json = false;
};

// The arrays from which a DO record is built. They grow with the file.
class Entries {
public:
    explicit Entries(BuildOptions const& options)
        : dotype_(options.dotype), fptype_(static_cast<unsigned char>(options.cut.fptype)) {}

    void Add(CutSegment const& segment) {
        CheckOffset(segment.offset);
        Append(segment.fingerprint.bytes, CRFPDigestSize(fptype_));
        auto const size = static_cast<std::uint32_t>(segment.size);
        Append(&size, DOTypeOf(dotype_).sizeWidth);
        AppendOffset(segment.offset);
        dcids_.push_back(segment.container);
        RecordCounts const counts{
            .nfp = static_cast<std::uint32_t>(dcids_.size()), .fptype = fptype_, .dotype = Type()};
        if (RecordLayout(counts).total > kLargestRecord) {
            throw Failure("the record would be larger than 4 GiB - 1: choose larger segments");
        }
    }

    // Allocates for the expected segments. There may be more.
    void Reserve(std::uint64_t segments) {
        RecordLayout const layout({.nfp = static_cast<std::uint32_t>(std::min(segments, kLargestRecord)),
                                   .fptype = fptype_,
                                   .dotype = Type()});
        if (layout.total <= kLargestRecord) {
            entries_.reserve(layout.dcids - layout.entries);
            dcids_.reserve(layout.segments);
        }
    }

    // Called as early as the offset is known.
    void CheckOffset(std::uint64_t offset) const {
        if (dotype_ == CR_DO_TYPE_4_BYTE_OFFSET && offset > std::numeric_limits<std::uint32_t>::max()) {
            throw Failure("a segment starts beyond 4 GiB, which DO type 5 cannot store: choose DO type 3");
        }
    }

    // Frees the entries before it adds the list of containers, which copies the record to a larger block.
    std::unique_ptr<DORecord> Build(CutTotals const& totals, std::uint64_t segmentSize) && {
        auto record = std::make_unique<DORecord>(totals.lastContainer, totals.bytes, segmentSize, totals.crc, 0, 0,
                                                 entries_.data(), static_cast<unsigned int>(dcids_.size()),
                                                 dcids_.data(), nullptr, fptype_, Type());
        entries_ = std::vector<unsigned char>();
        dcids_ = std::vector<unsigned long>();
        cr_status_t const status = record->AppendBloomAndUniqueDCIDList();
        if (status != CR_STATUS_OK) {
            throw Failure(std::string("the list of containers: ") + CRStatusToStringA(status));
        }
        return record;
    }

private:
    unsigned char Type() const { return static_cast<unsigned char>(dotype_); }

    void Append(void const* bytes, std::size_t size) {
        auto const* const from = static_cast<unsigned char const*>(bytes);
        entries_.insert(entries_.end(), from, from + size);
    }

    void AppendOffset(std::uint64_t offset) {
        auto const offset32 = static_cast<std::uint32_t>(offset);
        switch (DOTypeOf(dotype_).offsetWidth) {
        case sizeof offset: Append(&offset, sizeof offset); break;
        case sizeof offset32: Append(&offset32, sizeof offset32); break;
        default: break;
        }
    }

    unsigned int dotype_;
    unsigned char fptype_;
    std::vector<unsigned char> entries_;
    std::vector<unsigned long> dcids_;
};

// `gaps` and `ownMembers` are the members of only one of the verbs.
std::string ClosingLine(BuildOptions const& options, CutTotals const& totals, std::string_view gaps,
                        std::string_view ownMembers, std::uint64_t recordBytes, std::string_view records) {
    if (options.json) {
        return fmt::format(R"({},"file":{},"out":{},"bytes":{},"segments":{},{}"containers":{},)"
                           R"("first_container":{},"last_container":{},{},"record_bytes":{}}})",
                           JsonStart(), JsonName("file", options.file), JsonName("out", options.out),
                           Decimal{totals.bytes}, Decimal{totals.segments}, gaps, Decimal{totals.Containers()},
                           Decimal{totals.firstContainer}, Decimal{totals.lastContainer}, ownMembers,
                           Decimal{recordBytes});
    }
    std::string const holes = totals.gaps == 0 ? "" : fmt::format(" and {} of holes", Counted(totals.gaps, "byte"));
    return fmt::format("{}: {} in {}{}, {} ({} to {}); {} to {}", Printable(options.file),
                       Counted(totals.bytes, "byte"), Counted(totals.segments, "segment"), holes,
                       Counted(totals.Containers(), "container"), totals.firstContainer, totals.lastContainer, records,
                       Printable(options.out));
}

ExitCode Build(BuildOptions const& options, Output& out) {
    if (options.cut.content && DOTypeOf(options.dotype).sizeWidth == 0) {
        throw Failure(
            fmt::format("--cut content needs a DO type that stores sizes (2, 3 or 5), not {}", options.dotype));
    }
    Input input(options.file);
    RefuseToReplace({options.file}, options.out, "record");
    Entries entries(options);
    std::uint64_t const expected = input.ExpectedSize();
    std::uint64_t const usual = options.cut.UsualSegment();
    entries.CheckOffset(expected == 0 || options.cut.content ? 0 : (expected - 1) / usual * usual);
    entries.Reserve(expected / usual + 1);
    OutputFile to(options.out, {options.file});
    Holes const holes = options.dotype == CR_DO_TYPE_8_BYTE_OFFSET ? Holes::AreGaps : Holes::AreZeros;
    CutTotals const totals = Cut(input, options.cut, holes, [&](CutSegment const& segment) { entries.Add(segment); });
    std::unique_ptr<DORecord> const record =
        std::move(entries).Build(totals, options.cut.content ? 0 : options.cut.segmentSize);
    for (unsigned long const task : options.tasks) {
        record->AddTaskID(task);
    }
    for (unsigned int const dsid : options.dsids) {
        record->AddDSID(dsid);
    }
    record->HostToNetwork(0);
    auto const bytes = BytesOf(*record);
    to.Write(bytes.data(), bytes.size());
    to.Commit();
    PrintClosing(out, options.out, options.json,
                 ClosingLine(options, totals, fmt::format(R"("gap_bytes":{},)", Decimal{totals.gaps}),
                             fmt::format(R"("CRC":{})", totals.crc), bytes.size(),
                             "DO record of " + Counted(bytes.size(), "byte")));
    return ExitCode::AllWell;
}

// The fixed part comes from SORecord; the fingerprint follows it, and the spare slot stays zero.
void WriteSegmentRecord(OutputFile& out, CutSegment const& cut, unsigned char fptype) {
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

ExitCode BuildSegments(BuildOptions const& options, Output& out) {
    Input input(options.file);
    RefuseToReplace({options.file}, options.out, "records");
    OutputFile records(options.out, {options.file});
    auto const fptype = static_cast<unsigned char>(options.cut.fptype);
    CutTotals const totals = Cut(input, options.cut, Holes::AreZeros,
                                 [&](CutSegment const& cut) { WriteSegmentRecord(records, cut, fptype); });
    records.Commit();
    std::uint64_t const recordSize = segment::RecordSize(0, 1, fptype);
    std::uint64_t const recordBytes = totals.segments * recordSize;
    PrintClosing(out, options.out, options.json,
                 ClosingLine(options, totals, "", fmt::format(R"("record_size":{})", recordSize), recordBytes,
                             Counted(recordBytes, "byte") + " of records"));
    return ExitCode::AllWell;
}

void AddFileAndOut(Verb<BuildOptions> const& verb) {
    AddFile(verb.app, "FILE", verb.options.file, "Any file; - is standard input")->required();
    AddOut(verb.app, verb.options.out);
}

void AddJson(Verb<BuildOptions> const& verb) {
    verb.app.add_flag("--json", verb.options.json, "The closing line as a JSON object");
}

} // namespace

void AddBuild(CLI::App& app, Action& chosen) {
    auto const verb = AddVerb(app, chosen, "build", "Write the DO record of a file", Build);
    AddFileAndOut(verb);
    verb.app
        .add_option(
            "--dotype", verb.options.dotype,
            "What is stored with each fingerprint: 0 and 1 nothing, 2 the size, 3 size and 64-bit offset, 5 size "
            "and 32-bit offset")
        ->check(CLI::IsMember({0, 1, 2, 3, 5}).description(""))
        ->type_name("N")
        ->capture_default_str();
    AddCutOptions(verb.app, verb.options.cut, kLargestSegment);
    verb.app.add_option("--task", verb.options.tasks, "A task that refers to the object; may be repeated")
        ->type_name("ID")
        ->check(WholeNumber(std::numeric_limits<std::uint64_t>::max()))
        ->allow_extra_args(false);
    verb.app.add_option("--dsid", verb.options.dsids, "A data selection that refers to the object; may be repeated")
        ->type_name("ID")
        ->check(WholeNumber(CutOptions::kMost32))
        ->allow_extra_args(false);
    AddJson(verb);
    verb.app.footer(
        "Reads FILE once and hashes on all processors. The record is in network order and has the list of its\n"
        "containers. Its CRC is the CRC-32 of FILE, its container is the last one filled. With DO type 3 the holes of\n"
        "a sparse FILE are gaps between the segments; with other types, and in standard input, they are zeros. A FILE\n"
        "that is empty or one gap has no segments: status 2.\n\n"
        "With --cut content an insertion into FILE changes only the segments around it, so that the others are shared\n"
        "with earlier records; --cut fixed is faster, and enough for files that grow at their end or change in "
        "place.\n\n"
        "Example:\n  crrecord build movie.mkv -o movie.do --task 17");
}

void AddSegments(CLI::App& app, Action& chosen) {
    CLI::App* const segments = app.add_subcommand("segments", "Segment records of a file");
    segments->require_subcommand(1);
    segments->footer("Example:\n  crrecord segments build movie.mkv -o movie.seg");
    auto const verb =
        AddVerb(*segments, chosen, "build", "Write a segment record for each segment of a file", BuildSegments);
    AddFileAndOut(verb);
    AddCutOptions(verb.app, verb.options.cut);
    verb.options.cut.segmentCrcs = true;
    AddJson(verb);
    verb.app.footer(
        "Reads FILE once. Each record has the segment's container, size, CRC-32 and fingerprint, and is in network\n"
        "order. Containers are filled one after the other. An empty FILE has no segments: status 2.\n\n"
        "Example:\n  crrecord segments build movie.mkv -o movie.seg");
}

} // namespace crrecord::tool
