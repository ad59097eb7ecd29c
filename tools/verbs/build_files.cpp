// crrecord build for many files in one run.

#include "analysis/segment_runs.h"
#include "analysis/stored_segments.h"
#include "io/file_tree.h"
#include "io/line_reader.h"
#include "record/container_filler.h"
#include "record/cut_files.h"
#include "record/do_record.h"
#include "record/record_findings.h"
#include "store/segment_shape.h"
#include "verbs/build.h"
#include "json/name_index.h"

#include <climits>
#include <filesystem>

namespace crrecord::tool {

namespace {

// Adds the segments of --known, and chooses the first container.
class KnownSegments {
public:
    KnownSegments(BuildOptions const& options, StoredSegments& stored) : options_(options), stored_(stored) {}

    // Reports bad records, which are not used. Throws: Failure; also for a DO record.
    ExitCode ReadAll() {
        ExitCode result = ExitCode::AllWell;
        for (std::string const& file : options_.known) {
            RecordStream stream(file);
            SetUp(stream, options_.knownForm, nullptr);
            while (Record const* const record = stream.Next()) {
                if (record->kind == Kind::DataObject) {
                    throw Failure(PlaceOf(file, *record) + ": is a DO record, expected a segment record");
                }
                std::string const error = SegmentRecordError(file, *record);
                if (error.empty()) {
                    Add(SegmentOf(*record));
                } else {
                    Complain(error);
                    result = ExitCode::BadRecord;
                }
            }
        }
        return result;
    }

    // Returns: the options for cutting, with new containers after the known ones.
    CutOptions ForCutting() const {
        CutOptions cut = options_.cut;
        cut.segmentCrcs = !options_.segmentsOut.empty();
        if (!options_.choseContainer && greatest_ >= cut.firstContainer) {
            if (greatest_ == CutOptions::kMost32) {
                throw Failure(fmt::format("no container ids are left after {}, which --known uses", greatest_));
            }
            cut.firstContainer = static_cast<unsigned int>(greatest_ + 1);
        }
        if (greatest_ >= cut.firstContainer) {
            throw Failure(fmt::format("--first-container {}: --known uses container {}, expected a greater one",
                                      cut.firstContainer, greatest_));
        }
        return cut;
    }

private:
    void Add(StoredSegment const& segment) {
        // Ids beyond 32 bits are never those of new containers.
        if (segment.dcid <= CutOptions::kMost32) {
            greatest_ = std::max(greatest_, segment.dcid);
        }
        if (segment.fptype != options_.cut.fptype || segment.size > CutOptions::kMost32) {
            return;
        }
        crfp_digest_t fingerprint{};
        std::memcpy(fingerprint.bytes, segment.fingerprint, CRFPDigestSize(segment.fptype));
        auto const size = static_cast<std::uint32_t>(segment.size);
        if (!stored_.Find(fingerprint, size)) {
            stored_.Add(fingerprint, size, segment.dcid);
        }
    }

    BuildOptions const& options_;
    StoredSegments& stored_;
    std::uint64_t greatest_ = 0; // the greatest container below 2^32
};

// The output files. All appear at the end, the records last: what they need is there when they are.
class RunOutputs {
public:
    explicit RunOutputs(BuildOptions const& options) : records(options.out) {
        if (!options.segmentsOut.empty()) {
            segments.emplace(options.segmentsOut);
        }
        if (!options.names.empty()) {
            names.emplace(options.names);
        }
    }

    bool IsOutput(Input const& input) const {
        auto const is = [&input](auto const& file) { return file && file->IsFile(input.Facts()); };
        return is(&records) || is(segments) || is(names);
    }

    void Commit(Readers const& readers) {
        records.WidenFor(readers);
        if (segments) {
            segments->WidenFor(readers);
        }
        if (names) {
            names->WidenFor(readers);
        }
        OutputFile::CommitAll({segments ? &*segments : nullptr, names ? &*names : nullptr, &records});
    }

    OutputFile records;
    std::optional<OutputFile> segments;
    std::optional<OutputFile> names;
};

class BuildRun {
public:
    BuildRun(BuildOptions const& options, CutOptions cut, StoredSegments& stored)
        : options_(options), cut_(std::move(cut)), stored_(stored), containers_(cut_), outputs_(options),
          progress_(options.out, 0) {
        // Whoever reads the outputs learns something of these.
        std::vector<std::string> inputs = options.known;
        if (!options.list.empty()) {
            inputs.push_back(options.list);
        }
        readers_ = ReadersOf(inputs);
    }

    ExitCode Run() {
        {
            FilesCutter cutter(cut_, options_.ForHoles(), [this](auto const&... file) { AddRecord(file...); });
            for (std::string const& file : options_.files) {
                AddNamed(cutter, file);
            }
            for (std::string const& folder : options_.folders) {
                AddFolder(cutter, folder);
            }
            if (!options_.list.empty()) {
                AddList(cutter);
            }
            cutter.Finish();
        } // its threads end: no signal ends the process while the outputs appear
        if (records_ == 0) {
            throw Failure(options_.out + ": is not written: there are no records");
        }
        outputs_.Commit(readers_);
        return failed_ == 0 ? ExitCode::AllWell : ExitCode::BadRecord;
    }

    std::string ClosingLine() const { return options_.json ? JsonClosingLine() : TextClosingLine(); }

private:
    void AddFolder(FilesCutter& cutter, std::string const& folder) {
        FileTree tree(
            folder, [this](std::string const& text) { Skip(text); }, [this](std::string const& text) { Fail(text); });
        while (std::unique_ptr<Input> const input = tree.Next()) {
            if (outputs_.IsOutput(*input)) {
                Skip(input->Name() + ": is an output of this run: skipped");
            } else {
                Try([&] { Add(cutter, *input); });
            }
        }
    }

    void AddList(FilesCutter& cutter) {
        Input input(options_.list);
        LineReader names(input, PATH_MAX, '\0');
        while (auto const next = names.Next()) {
            std::string const name(*next);
            if (name.empty() || name.size() > PATH_MAX || (name == "-" && options_.list == "-")) {
                Fail(fmt::format("{}: name {}: found {}, expected a file name", options_.list, names.Number(),
                                 name.empty()  ? "an empty name"
                                 : name == "-" ? "standard input, which has the names"
                                               : "a name of more than 4096 bytes"));
                if (name.size() > PATH_MAX) {
                    throw Failure(options_.list + ": is not a list of names that end with NUL");
                }
            } else {
                AddNamed(cutter, name);
            }
        }
    }

    void AddNamed(FilesCutter& cutter, std::string const& name) {
        Try([&] {
            Input input(name);
            if (outputs_.IsOutput(input)) {
                throw InputFailure(name + ": is an input itself, which an output would replace");
            }
            Add(cutter, input);
        });
    }

    void Add(FilesCutter& cutter, Input& input) {
        cutter.Add(input);
        input.Restrict(readers_);
    }

    // One file that cannot be read does not end the run.
    void Try(std::function<void()> const& step) {
        try {
            step();
        } catch (InputFailure const& failure) {
            Fail(failure.what());
        }
    }

    void Fail(std::string const& text) {
        Complain(text);
        ++failed_;
    }

    void Skip(std::string const& text) {
        Complain(text);
        ++skipped_;
    }

    // The checks come first: no segment of a file without a record is stored.
    void AddRecord(std::string const& name, CutTotals const& totals, std::span<CutSegment> segments) {
        RecordBuilder builder(options_.object, cut_);
        try {
            builder.CheckOffset(segments.empty() ? 0 : segments.back().offset);
            builder.CheckCount(segments.size());
        } catch (InputFailure const& failure) {
            Fail(name + ": " + failure.what());
            return;
        }
        builder.Reserve(segments.size());
        for (CutSegment& segment : segments) {
            Store(segment);
            builder.Add(segment);
        }
        std::unique_ptr<DORecord> const record = std::move(builder).Build(totals, containers_.Current());
        auto const bytes = BytesOf(*record);
        outputs_.records.Write(bytes.data(), bytes.size());
        if (outputs_.names) {
            json::WriteName(outputs_.names->Text(), {recordBytes_, bytes.size(), name});
        }
        ++records_;
        recordBytes_ += bytes.size();
        bytes_ += totals.bytes;
        gaps_ += totals.gaps;
        segments_ += segments.size();
        progress_.At(bytes_);
    }

    // Sets the container of a segment, and adds the segment if it is new.
    void Store(CutSegment& segment) {
        auto const size = static_cast<std::uint32_t>(segment.size);
        if (auto const container = stored_.Find(segment.fingerprint, size)) {
            segment.container = *container;
            return;
        }
        segment.container = containers_.Place(size);
        stored_.Add(segment.fingerprint, size, segment.container);
        if (outputs_.segments) {
            WriteSegmentRecord(*outputs_.segments, segment, cut_.fptype);
        }
        ++newSegments_;
        newBytes_ += size;
    }

    std::string TextClosingLine() const {
        std::string const range = containers_.Count() == 0
                                      ? ""
                                      : fmt::format(" in {} ({} to {})", Counted(containers_.Count(), "container"),
                                                    containers_.First(), containers_.Current());
        std::string const holes = gaps_ == 0 ? "" : fmt::format(" and {} of holes", Counted(gaps_, "byte"));
        std::string line =
            fmt::format("{}: {} of {}; {} in {}{}: {} new of {}{}", Printable(options_.out),
                        Counted(records_, "DO record"), Counted(recordBytes_, "byte"), Counted(bytes_, "byte"),
                        Counted(segments_, "segment"), holes, newSegments_, Counted(newBytes_, "byte"), range);
        if (failed_ != 0) {
            line += fmt::format("; {} failed", failed_);
        }
        if (skipped_ != 0) {
            line += fmt::format("; {} skipped", skipped_);
        }
        return line;
    }

    std::string JsonClosingLine() const {
        bool const any = containers_.Count() != 0;
        auto const idOrNull = [any](unsigned int id) { return any ? fmt::format("{}", Decimal{id}) : "null"; };
        return fmt::format(R"({},"out":{},"records":{},"failed":{},"skipped":{},"bytes":{},"segments":{},)"
                           R"("gap_bytes":{},"new_segments":{},"new_bytes":{},"containers":{},)"
                           R"("first_container":{},"last_container":{},"record_bytes":{}}})",
                           JsonStart(), JsonName("out", options_.out), Decimal{records_}, Decimal{failed_},
                           Decimal{skipped_}, Decimal{bytes_}, Decimal{segments_}, Decimal{gaps_},
                           Decimal{newSegments_}, Decimal{newBytes_}, Decimal{containers_.Count()},
                           idOrNull(containers_.First()), idOrNull(containers_.Current()), Decimal{recordBytes_});
    }

    BuildOptions const& options_;
    CutOptions cut_;
    StoredSegments& stored_;
    ContainerFiller containers_;
    RunOutputs outputs_;
    Progress progress_;
    Readers readers_;
    std::uint64_t records_ = 0;
    std::uint64_t recordBytes_ = 0;
    std::uint64_t failed_ = 0;
    std::uint64_t skipped_ = 0;
    std::uint64_t bytes_ = 0; // gaps included
    std::uint64_t gaps_ = 0;
    std::uint64_t segments_ = 0;
    std::uint64_t newSegments_ = 0;
    std::uint64_t newBytes_ = 0;
};

// Throws: Failure if two outputs are one file, or if an output is an input.
void CheckOutputs(BuildOptions const& options) {
    std::vector<std::string> outputs;
    std::vector<std::string> inputs = options.known;
    inputs.insert(inputs.end(), options.files.begin(), options.files.end());
    if (!options.list.empty()) {
        inputs.push_back(options.list);
    }
    for (std::string const& out : {options.out, options.names, options.segmentsOut}) {
        if (out.empty()) {
            continue;
        }
        // A relative name of no file is left as it is.
        std::string const path =
            out == "-" ? out : std::filesystem::weakly_canonical(std::filesystem::absolute(out)).string();
        if (std::find(outputs.begin(), outputs.end(), path) != outputs.end()) {
            throw Failure(out + ": is the file of two outputs");
        }
        outputs.push_back(path);
        RefuseToReplace(inputs, out, "output");
    }
    bool const readsNames = options.list == "-";
    auto const isStandard = [](std::string const& file) { return file == "-"; };
    if (std::count_if(inputs.begin(), inputs.end(), isStandard) > 1) {
        throw Failure(readsNames ? "standard input has the names, so it can be no other input"
                                 : "standard input can be only one of the inputs");
    }
}

} // namespace

ExitCode BuildFiles(BuildOptions const& options, Output& out) {
    CheckOutputs(options);
    StoredSegments stored;
    KnownSegments known(options, stored);
    ExitCode const result = known.ReadAll();
    BuildRun run(options, known.ForCutting(), stored);
    ExitCode const built = run.Run();
    // A closing line on standard output would mix with an index there.
    bool const usesOutput = options.names == "-" || options.segmentsOut == "-";
    PrintClosing(out, usesOutput ? "-" : options.out, options.json, run.ClosingLine());
    return std::max(result, built);
}

} // namespace crrecord::tool
