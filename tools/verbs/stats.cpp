// crrecord stats: sums over records, by container.

#include "analysis/container_totals.h"
#include "analysis/segment_runs.h"
#include "analysis/unique_segments.h"
#include "record/do_record.h"
#include "record/parallel_records.h"
#include "support/layout/record_layout.h"
#include "verbs/verbs.h"

namespace crrecord::tool {

namespace {

constexpr std::uint64_t kMost64 = std::numeric_limits<std::uint64_t>::max();

struct StatsOptions {
    std::vector<std::string> files{"-"};
    FormOptions form;
    unsigned int jobs = Processors();
    std::optional<std::uint64_t> top;
    bool unique = false;
    bool json = false;
};

// The sums over all records.
class Totals {
public:
    explicit Totals(StatsOptions const& options) : options_(options) {}

    void Count(std::string const& file, Record const& record) {
        switch (record.kind) {
        case Kind::Segment: CountSegment(SegmentOf(record)); break;
        case Kind::Form: CountObject(OpenDORecord(file, record)->GetHeader()); break;
        default: CountObject(reinterpret_cast<DORecordHeader const*>(record.bytes));
        }
    }

    void CountBad() { ++bad_; }
    // Call it after the last record of an input.
    void CountGaps(RecordStream const& stream) { gaps_.Add(stream); }

    // Returns: true if a record was counted, valid or not.
    bool Any() const { return records_ + bad_ != 0; }

    void PrintJson(Output& out) {
        out.Print(R"({},"records":{},"bad_records":{},"skipped_bytes":{},"unread_bytes":{},"segments":{},"bytes":{},)"
                  R"("elsewhere":{{"segments":{},"bytes":{}}},)",
                  JsonStart(), Decimal{records_}, Decimal{bad_}, Decimal{gaps_.skipped}, JsonNumber(gaps_.unread),
                  Decimal{segments_}, Decimal{bytes_}, Decimal{segmentsElsewhere_}, Decimal{bytesElsewhere_});
        if (options_.unique) {
            UniqueSums const& unique = unique_.Sums();
            out.Print(R"("unique_segments":{},"unique_bytes":{},"repeated_bytes":{},)", Decimal{unique.segments},
                      Decimal{unique.bytes}, Decimal{unique.repeatedBytes});
        }
        out.Print(R"("container_count":{},"containers":[)", Decimal{containers_.size()});
        char const* separator = "";
        for (ContainerTotals const* const container : containers_.Sorted(options_.top)) {
            out.Print(R"({}{{"dcid":{},"segments":{},"bytes":{},"fragments":{}}})", separator, Decimal{container->dcid},
                      Decimal{container->segments}, Decimal{container->bytes}, Decimal{container->fragments});
            separator = ",";
        }
        out.Write("]}\n");
    }

    void PrintTable(Output& out) {
        static constexpr char kRow[] = "{:>20}  {:>12}  {:>20}  {:>12}\n";
        auto const sorted = containers_.Sorted(options_.top);
        if (!sorted.empty()) {
            out.Print(kRow, "container", "segments", "bytes", "fragments");
        }
        for (ContainerTotals const* const container : sorted) {
            out.Print(kRow, container->dcid, container->segments, container->bytes, container->fragments);
        }
        if (sorted.size() < containers_.size()) {
            out.Print("The {} greatest of {}\n", sorted.size(), Counted(containers_.size(), "container"));
        }
        out.Print("{}{}: {} of {}, in {}\n", sorted.empty() ? "" : "\n", Counted(records_, "record"),
                  Counted(segments_, "segment"), WithUnit(bytes_), Counted(containers_.size(), "container"));
        if (segmentsElsewhere_ != 0) {
            out.Print("in no container: {} of {}\n", Counted(segmentsElsewhere_, "segment"), WithUnit(bytesElsewhere_));
        }
        PrintGaps(out, gaps_);
        if (options_.unique) {
            UniqueSums const& unique = unique_.Sums();
            out.Print("unique: {} of {}; repeated: {}\n", Counted(unique.segments, "segment"), WithUnit(unique.bytes),
                      WithUnit(unique.repeatedBytes));
        }
    }

private:
    void CountSegment(StoredSegment const& segment) {
        AddBytes(bytes_, segment.size);
        ++records_;
        ++segments_;
        if (segment.inContainer) {
            containers_.Add({segment.dcid, 1, segment.size, 1});
        } else {
            ++segmentsElsewhere_;
            bytesElsewhere_ += segment.size;
        }
        if (options_.unique) {
            unique_.Add(segment.fptype, segment.fingerprint, segment.size);
        }
    }

    void CountObject(DORecordHeader const* header) {
        CheckSum(header);
        ++records_;
        auto const count = [this](Run const& run) {
            segments_ += run.segments;
            bytes_ += run.bytes;
            containers_.Add({run.dcid, run.segments, run.bytes, run.segments == 0 ? 0UL : 1UL});
        };
        if (!options_.unique) {
            ForEachRun(header, count);
            return;
        }
        unsigned int const fptype = header->fptype;
        ForEachRun(header, count,
                   [&](DOSegment const& segment) { unique_.Add(fptype, segment.fingerprint.data, segment.size); });
    }

    // Throws: TooManyBytes if the sum would overflow with the record's bytes.
    void CheckSum(DORecordHeader const* header) const {
        // Most records pass without a look at their segments. The sum of stored sizes is at most the object's size. If
        // the sizes are not stored, each segment has less than 4 GiB.
        constexpr std::uint64_t kLargestSegment = std::numeric_limits<std::uint32_t>::max();
        bool const isBloom = IsBloom(header->dotype);
        DOSegmentSource const segments = DOSegmentSource::Of(header);
        std::uint64_t const most =
            DOTypeOf(header->dotype).sizeWidth != 0 ? segments.objectSize : segments.count * kLargestSegment;
        if (isBloom || most > kMost64 - bytes_) {
            std::uint64_t sum = bytes_;
            ForEachRun(header, [&sum](Run const& run) { AddBytes(sum, run.bytes); });
        }
    }

    StatsOptions const& options_;
    Containers containers_;
    UniqueSegments unique_;
    std::uint64_t records_ = 0;
    std::uint64_t bad_ = 0;
    GapSums gaps_;
    std::uint64_t segments_ = 0;
    std::uint64_t bytes_ = 0; // the greatest of all sums of bytes
    std::uint64_t segmentsElsewhere_ = 0;
    std::uint64_t bytesElsewhere_ = 0;
};

struct StatsPart : RecordPart {
    using RecordPart::RecordPart;

    struct Checked {
        Record record;
        std::string error; // empty for a valid record
    };
    std::vector<Checked> records;
};

// Counts each valid record of an input. Reports and omits a record that makes a sum overflow. Only the checks are in
// several threads.
ExitCode CountInput(RecordStream& stream, unsigned int jobs, Output& out, Totals& totals) {
    ExitCode result = ExitCode::AllWell;
    std::string const& name = stream.Name();
    auto const work = [&name](Record& record, StatsPart& part) {
        bool const valid = Diagnose(record, Depth::FirstError, part.findings);
        part.records.push_back({record, valid ? "" : Describe(name, record, part.findings.front())});
        return true;
    };
    auto const use = [&](StatsPart& part) {
        for (auto const& [record, error] : part.records) {
            if (!error.empty()) {
                Complain(error);
                totals.CountBad();
                result = std::max(result, ExitCode::BadRecord);
                continue;
            }
            try {
                totals.Count(name, record);
            } catch (TooManyBytes const&) {
                Complain(PlaceOf(name, record) + ": omitted: the sum would exceed 2^64 - 1 bytes");
                result = ExitCode::CouldNotWork;
            }
        }
        part.records.clear();
    };
    auto const make = [](Output::PartOf of) { return std::make_unique<StatsPart>(of); };
    ParallelRecords<StatsPart>(stream, jobs, out, {.make = make, .work = work, .use = use}).Run();
    totals.CountGaps(stream);
    return result;
}

ExitCode Stats(StatsOptions const& options, Output& out) {
    Totals totals(options);
    ExitCode const result = ForEachInput(options.files, options.form, nullptr, [&](RecordStream& stream) {
        return CountInput(stream, options.jobs, out, totals);
    });
    if (totals.Any()) {
        options.json ? totals.PrintJson(out) : totals.PrintTable(out);
    }
    return result;
}

} // namespace

void AddStats(CLI::App& app, Action& chosen) {
    auto const [verb, options] = AddVerb(app, chosen, "stats", "Add up segments and bytes by container", Stats);
    AddFiles(verb, options.files);
    verb.add_flag("--unique", options.unique, "Also count the bytes of different and of repeated segments");
    verb.add_option_function<std::uint64_t>(
            "--top", [&options = options](std::uint64_t count) { options.top = count; },
            "Only the N containers with the most bytes")
        ->check(WholeNumber(kMost64))
        ->type_name("N");
    verb.add_flag("--json", options.json, "One JSON object");
    AddFormOptions(verb, options.form);
    AddScan(verb, options.form);
    AddJobs(verb, options.jobs);
    verb.footer("A fragment is a run of consecutive segments of an object in the same container.\n\n"
                "Example:\n  crrecord stats --top 10 --unique *.do");
}

} // namespace crrecord::tool
