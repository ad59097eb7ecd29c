// crrecord build and segments build: the DO record or the segment records of a file.

#include "verbs/build.h"

#include "record/container_filler.h"
#include "record/cut_options.h"
#include "record/do_record.h"
#include "record/record_builder.h"
#include "record/record_findings.h"

#include "SOmarshall/layout.h"

namespace crrecord::tool {

namespace {

constexpr unsigned int kLargestSegment = 0x7fffffff; // the library takes larger sizes for byte-swapped numbers

// segments build has one FILE, and no DO type, tasks and data selections.
struct SegmentsOptions {
    std::string file;
    std::string out;
    CutOptions cut;
    bool json = false;
};

// The input and the output of a verb, for the closing line.
struct Ends {
    std::string const& file;
    std::string const& out;
    bool json;
};

// `gaps` and `ownMembers` are the members of only one of the verbs.
std::string ClosingLine(Ends const& ends, CutTotals const& totals, ContainerFiller const& containers,
                        std::string_view gaps, std::string_view ownMembers, std::uint64_t recordBytes,
                        std::string_view records) {
    if (ends.json) {
        return fmt::format(R"({},"file":{},"out":{},"bytes":{},"segments":{},{}"containers":{},)"
                           R"("first_container":{},"last_container":{},{},"record_bytes":{}}})",
                           JsonStart(), JsonName("file", ends.file), JsonName("out", ends.out), Decimal{totals.bytes},
                           Decimal{totals.segments}, gaps, Decimal{containers.Count()}, Decimal{containers.First()},
                           Decimal{containers.Current()}, ownMembers, Decimal{recordBytes});
    }
    std::string const holes = totals.gaps == 0 ? "" : fmt::format(" and {} of holes", Counted(totals.gaps, "byte"));
    return fmt::format("{}: {} in {}{}, {} ({} to {}); {} to {}", Printable(ends.file), Counted(totals.bytes, "byte"),
                       Counted(totals.segments, "segment"), holes, Counted(containers.Count(), "container"),
                       containers.First(), containers.Current(), records, Printable(ends.out));
}

ExitCode BuildOne(BuildOptions const& options, Output& out) {
    std::string const& file = options.files.front();
    Input input(file);
    RefuseToReplace({file}, options.out, "record");
    RecordBuilder builder(options.object, options.cut);
    ContainerFiller containers(options.cut);
    std::uint64_t const expected = input.ExpectedSize();
    std::uint64_t const usual = options.cut.UsualSegment();
    // As early as the offset is known.
    builder.CheckOffset(expected == 0 || options.cut.content ? 0 : (expected - 1) / usual * usual);
    builder.Reserve(expected / usual + 1);
    OutputFile to(options.out, {file});
    CutTotals const totals = Cut(input, options.cut, options.ForHoles(), [&](CutSegment& segment) {
        segment.container = containers.Place(segment.size);
        builder.Add(segment);
    });
    ThrowIfEmpty(file, totals);
    std::unique_ptr<DORecord> const record = std::move(builder).Build(totals, containers.Current());
    auto const bytes = BytesOf(*record);
    to.Write(bytes.data(), bytes.size());
    to.Commit();
    PrintClosing(out, options.out, options.json,
                 ClosingLine({file, options.out, options.json}, totals, containers,
                             fmt::format(R"("gap_bytes":{},)", Decimal{totals.gaps}),
                             fmt::format(R"("CRC":{})", totals.crc), bytes.size(),
                             "DO record of " + Counted(bytes.size(), "byte")));
    return ExitCode::AllWell;
}

ExitCode Build(BuildOptions const& options, Output& out) {
    if (options.cut.content && DOTypeOf(options.object.dotype).sizeWidth == 0) {
        throw Failure(
            fmt::format("--cut content needs a DO type that stores sizes (2, 3 or 5), not {}", options.object.dotype));
    }
    if (options.files.empty() && options.folders.empty() && options.list.empty()) {
        throw Failure("FILE, --recursive or --files-from0 is required (try: crrecord build --help)");
    }
    return options.IsRun() ? BuildFiles(options, out) : BuildOne(options, out);
}

ExitCode BuildSegments(SegmentsOptions const& options, Output& out) {
    Input input(options.file);
    RefuseToReplace({options.file}, options.out, "records");
    ContainerFiller containers(options.cut);
    OutputFile records(options.out, {options.file});
    CutTotals const totals = Cut(input, options.cut, Holes::AreZeros, [&](CutSegment& segment) {
        segment.container = containers.Place(segment.size);
        WriteSegmentRecord(records, segment, options.cut.fptype);
    });
    ThrowIfEmpty(options.file, totals);
    records.Commit();
    std::uint64_t const recordSize = segment::RecordSize(0, 1, static_cast<unsigned char>(options.cut.fptype));
    std::uint64_t const recordBytes = totals.segments * recordSize;
    PrintClosing(out, options.out, options.json,
                 ClosingLine({options.file, options.out, options.json}, totals, containers, "",
                             fmt::format(R"("record_size":{})", recordSize), recordBytes,
                             Counted(recordBytes, "byte") + " of records"));
    return ExitCode::AllWell;
}

template <class Options>
void AddJson(Verb<Options> const& verb) {
    verb.app.add_flag("--json", verb.options.json, "The closing line as a JSON object");
}

void AddRunOptions(CLI::App& verb, BuildOptions& options) {
    AddRepeatedFile(verb, "-r,--recursive", options.folders,
                    "Also the regular files in this folder and the folders in it; may be repeated")
        ->type_name("DIR");
    AddFile(verb, "--files-from0", options.list, "Also the files named in this file, each name followed by NUL")
        ->type_name("LIST");
    AddFile(verb, "--names", options.names, "Write the place and the name of each record to this index")
        ->type_name("INDEX");
    AddRepeatedFile(verb, "--known", options.known,
                    "Segment records of a former run: their segments keep their containers; may be repeated")
        ->type_name("RECORDS");
    AddScan(verb, options.knownForm);
    verb.get_option("--scan")->needs(verb.get_option("--known"));
    AddFile(verb, "--segments-out", options.segmentsOut, "Write a segment record for each new segment to this file")
        ->type_name("RECORDS");
}

} // namespace

void AddBuild(CLI::App& app, Action& chosen) {
    auto const verb = AddVerb(app, chosen, "build", "Write the DO records of files", Build);
    AddFiles(verb.app, verb.options.files, "Any files; - is standard input");
    AddOut(verb.app, verb.options.out);
    AddRunOptions(verb.app, verb.options);
    verb.app
        .add_option(
            "--dotype", verb.options.object.dotype,
            "What is stored with each fingerprint: 0 and 1 nothing, 2 the size, 3 size and 64-bit offset, 5 size "
            "and 32-bit offset")
        ->check(CLI::IsMember({0, 1, 2, 3, 5}).description(""))
        ->type_name("N")
        ->capture_default_str();
    AddCutOptions(verb.app, verb.options.cut, kLargestSegment);
    verb.app.get_option("--first-container")->each([&options = verb.options](std::string const&) {
        options.choseContainer = true;
    });
    verb.app.add_option("--task", verb.options.object.tasks, "A task that refers to the object; may be repeated")
        ->type_name("ID")
        ->check(WholeNumber(std::numeric_limits<std::uint64_t>::max()))
        ->allow_extra_args(false);
    verb.app
        .add_option("--dsid", verb.options.object.dsids, "A data selection that refers to the object; may be repeated")
        ->type_name("ID")
        ->check(WholeNumber(CutOptions::kMost32))
        ->allow_extra_args(false);
    AddJson(verb);
    verb.app.footer(
        "Reads FILE once and hashes on all processors. The record is in network order and has the list of its\n"
        "containers. Its CRC is the CRC-32 of FILE, its container is the last one filled. With DO type 3 the holes of\n"
        "a sparse FILE are gaps between the segments; with other types, and in standard input, they are zeros. One "
        "FILE\n"
        "that is empty or one gap has no segments: status 2.\n\n"
        "With --cut content an insertion into FILE changes only the segments around it, so that the others are shared\n"
        "with earlier records; --cut fixed is faster, and enough for files that grow at their end or change in "
        "place.\n\n"
        "With several files, or with --recursive, --files-from0, --names, --known or --segments-out, OUT has a record "
        "for\n"
        "each file, and a segment that occurred before in the run, or in a record of --known, keeps its container. A "
        "file\n"
        "that cannot be read or changes is reported, and the others go on: status 1. An empty file has a record "
        "without\n"
        "segments. All outputs are written at the end.\n\n"
        "Example:\n  crrecord build movie.mkv -o movie.do --task 17\n"
        "  crrecord build -r photos -o photos.do --names photos.idx --segments-out photos.seg");
}

void AddSegments(CLI::App& app, Action& chosen) {
    CLI::App* const segments = app.add_subcommand("segments", "Segment records of a file");
    segments->require_subcommand(1);
    segments->footer("Example:\n  crrecord segments build movie.mkv -o movie.seg");
    auto const verb =
        AddVerb(*segments, chosen, "build", "Write a segment record for each segment of a file", BuildSegments);
    AddFile(verb.app, "FILE", verb.options.file, "Any file; - is standard input")->required();
    AddOut(verb.app, verb.options.out);
    AddCutOptions(verb.app, verb.options.cut);
    verb.options.cut.segmentCrcs = true;
    AddJson(verb);
    verb.app.footer(
        "Reads FILE once. Each record has the segment's container, size, CRC-32 and fingerprint, and is in network\n"
        "order. Containers are filled one after the other. An empty FILE has no segments: status 2.\n\n"
        "Example:\n  crrecord segments build movie.mkv -o movie.seg");
}

} // namespace crrecord::tool
