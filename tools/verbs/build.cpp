// crrecord build: the DO record of a real file.

#include "record/cut.h"
#include "record/do_record.h"
#include "record/record_findings.h"
#include "verbs/verbs.h"

#include "support/layout/record_layout.h"

namespace crrecord::tool {

namespace {

constexpr unsigned int kLargestSegment = 0x7fffffff; // the library takes larger ones for numbers in the wrong order

struct BuildOptions {
    std::string file;
    std::string out;
    CutOptions cut;
    unsigned int dotype = CR_DO_TYPE_8_BYTE_OFFSET;
    std::vector<unsigned long> tasks;
    std::vector<unsigned int> dsids;
    bool json = false;
};

// The arrays that a DO record is built from; they grow with the file.
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
            throw Failure("the record would be larger than 4 GiB - 1: take larger segments");
        }
    }

    // Of what a file of so many bytes will have; more may come.
    void Reserve(std::uint64_t segments) {
        RecordLayout const layout({.nfp = static_cast<std::uint32_t>(std::min(segments, kLargestRecord)),
                                   .fptype = fptype_,
                                   .dotype = Type()});
        if (layout.total <= kLargestRecord) {
            entries_.reserve(layout.dcids - layout.entries);
            dcids_.reserve(layout.segments);
        }
    }

    // Told as soon as it can be known.
    void CheckOffset(std::uint64_t offset) const {
        if (dotype_ == CR_DO_TYPE_4_BYTE_OFFSET && offset > std::numeric_limits<std::uint32_t>::max()) {
            throw Failure("a segment begins beyond 4 GiB, where DO type 5 has no offsets: take DO type 3");
        }
    }

    // The entries go on the way: with its list of containers the record moves to a block of its new size.
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

std::string ClosingLine(BuildOptions const& options, CutTotals const& totals, std::uint64_t recordSize) {
    if (options.json) {
        return fmt::format(R"({},"file":{},"out":{},"bytes":"{}","segments":"{}","gap_bytes":"{}","containers":"{}",)"
                           R"("first_container":"{}","last_container":"{}","crc":{},"record_bytes":"{}"}})",
                           JsonStart(), JsonQuoted(options.file), JsonQuoted(options.out), totals.bytes,
                           totals.segments, totals.gaps, totals.Containers(), totals.firstContainer,
                           totals.lastContainer, totals.crc, recordSize);
    }
    std::string const gaps = totals.gaps == 0 ? "" : fmt::format(" and {} of holes", Counted(totals.gaps, "byte"));
    return fmt::format("{}: {} in {}{}, {} ({} to {}); DO record of {} to {}", Printable(options.file),
                       Counted(totals.bytes, "byte"), Counted(totals.segments, "segment"), gaps,
                       Counted(totals.Containers(), "container"), totals.firstContainer, totals.lastContainer,
                       Counted(recordSize, "byte"), Printable(options.out));
}

ExitCode Build(BuildOptions const& options, Output& out) {
    Input input(options.file);
    RefuseToReplace({options.file}, options.out, "record");
    Entries entries(options);
    std::uint64_t const expected = input.ExpectedSize();
    entries.CheckOffset(expected == 0 ? 0 : (expected - 1) / options.cut.segmentSize * options.cut.segmentSize);
    entries.Reserve(expected / options.cut.segmentSize + 1);
    OutputFile to(options.out, {options.file});
    Holes const holes = options.dotype == CR_DO_TYPE_8_BYTE_OFFSET ? Holes::AreGaps : Holes::AreZeros;
    CutTotals const totals = Cut(input, options.cut, holes, [&](CutSegment const& segment) { entries.Add(segment); });
    std::unique_ptr<DORecord> const record = std::move(entries).Build(totals, options.cut.segmentSize);
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
    PrintClosing(out, options.out, options.json, ClosingLine(options, totals, bytes.size()));
    return ExitCode::AllWell;
}

} // namespace

void AddBuild(CLI::App& app, Action& chosen) {
    auto const options = std::make_shared<BuildOptions>();
    CLI::App* const verb = app.add_subcommand("build", "Write the DO record of a file");
    AddFile(*verb, "FILE", options->file, "Any file; - is standard input")->required();
    AddFile(*verb, "-o,--out", options->out, "The file to write; - is standard output")->required()->type_name("OUT");
    verb->add_option(
            "--dotype", options->dotype,
            "What a segment has beside its fingerprint: 0 and 1 nothing, 2 its size, 3 size and 64-bit offset, "
            "5 size and 32-bit offset")
        ->check(CLI::IsMember({0, 1, 2, 3, 5}).description(""))
        ->type_name("N")
        ->capture_default_str();
    AddCutOptions(*verb, options->cut, kLargestSegment);
    verb->add_option("--task", options->tasks, "A task that refers to the object; may be given again")
        ->type_name("ID")
        ->check(WholeNumber(std::numeric_limits<std::uint64_t>::max()))
        ->allow_extra_args(false);
    verb->add_option("--dsid", options->dsids, "A data selection that refers to the object; may be given again")
        ->type_name("ID")
        ->check(WholeNumber(CutOptions::kMost32))
        ->allow_extra_args(false);
    verb->add_flag("--json", options->json, "The closing line as a JSON object");
    verb->footer(
        "Reads FILE once, and hashes on all processors. The record is in network order and has the list of its\n"
        "containers. Its CRC is the CRC-32 of all of FILE, its own container the last one filled. With DO type 3 the\n"
        "holes of a sparse FILE are gaps between the segments; otherwise, and in standard input, they are zeros like\n"
        "any others. An empty FILE, or one that is one such gap, has no segments: status 2.\n\n"
        "Example:\n  crrecord build movie.mkv -o movie.do --task 17");
    verb->callback([options, &chosen] { chosen = [options](Output& out) { return Build(*options, out); }; });
}

} // namespace crrecord::tool
