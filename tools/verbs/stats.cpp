// crrecord stats: sums over records, by container.

#include "analysis/container_totals.h"
#include "analysis/segment_runs.h"
#include "analysis/unique_segments.h"
#include "record/do_record.h"
#include "record/record_findings.h"
#include "support/layout/record_layout.h"
#include "verbs/verbs.h"

#include <set>

namespace crrecord::tool {

namespace {

constexpr std::uint64_t kMost64 = std::numeric_limits<std::uint64_t>::max();

struct StatsOptions {
    std::vector<std::string> files{"-"};
    FormOptions form;
    std::vector<std::uint64_t> uses;
    std::optional<std::uint64_t> top;
    bool unique = false;
    bool json = false;
};

template <class Counter>
void CountRecord(std::string const& file, Record const& record, Counter& counter) {
    switch (record.kind) {
    case Kind::Segment: counter.CountSegment(record, SegmentOf(record)); break;
    case Kind::Form: counter.CountObject(record, OpenDORecord(file, record)->GetHeader()); break;
    default: counter.CountObject(record, reinterpret_cast<DORecordHeader const*>(record.bytes));
    }
}

// Calls counter.CountSegment(record, StoredSegment) or counter.CountObject(record, header) for each valid record of an
// input, and counter.CountBad with the number of bad ones. Reports and omits a record that makes a sum overflow.
template <class Counter>
ExitCode CountInput(RecordStream& stream, Counter& counter) {
    ExitCode result = ExitCode::AllWell;
    std::vector<Finding> findings;
    std::uint64_t bad = 0;
    while (Record const* const record = stream.Next()) {
        if (!CheckRecord(stream.Name(), *record, findings)) {
            ++bad;
            result = std::max(result, ExitCode::BadRecord);
            continue;
        }
        try {
            CountRecord(stream.Name(), *record, counter);
        } catch (TooManyBytes const&) {
            Complain(PlaceOf(stream.Name(), *record) + ": omitted: the sum would exceed 2^64 - 1 bytes");
            result = ExitCode::CouldNotWork;
        }
    }
    counter.CountBad(bad);
    return result;
}

// The sums over all records.
class Totals {
public:
    explicit Totals(StatsOptions const& options) : options_(options) {}

    void CountSegment(Record const&, StoredSegment const& segment) {
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
            CountUnique(segment.fptype, segment.fingerprint, segment.size);
        }
    }

    void CountObject(Record const&, DORecordHeader const* header) {
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
                   [&](DOSegment const& segment) { CountUnique(fptype, segment.fingerprint.data, segment.size); });
    }

    void CountBad(std::uint64_t records) { bad_ += records; }

    // Returns: true if a record was counted, valid or not.
    bool Any() const { return records_ + bad_ != 0; }

    void PrintJson(Output& out) const {
        out.Print(R"({},"records":{},"bad_records":{},"segments":{},"bytes":{},)"
                  R"("elsewhere":{{"segments":{},"bytes":{}}},)",
                  JsonStart(), Decimal{records_}, Decimal{bad_}, Decimal{segments_}, Decimal{bytes_},
                  Decimal{segmentsElsewhere_}, Decimal{bytesElsewhere_});
        if (options_.unique) {
            out.Print(R"("unique_bytes":{},"repeated_bytes":{},)", Decimal{uniqueBytes_}, Decimal{repeatedBytes_});
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

    void PrintTable(Output& out) const {
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
        if (options_.unique) {
            out.Print("unique: {}; repeated: {}\n", WithUnit(uniqueBytes_), WithUnit(repeatedBytes_));
        }
    }

private:
    void CountUnique(unsigned int fptype, unsigned char const* fingerprint, std::uint64_t size) {
        bool const isNew = !fingerprint || unique_.Insert(fptype, fingerprint, size);
        (isNew ? uniqueBytes_ : repeatedBytes_) += size;
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
    std::uint64_t segments_ = 0;
    std::uint64_t bytes_ = 0; // the greatest of all sums of bytes
    std::uint64_t segmentsElsewhere_ = 0;
    std::uint64_t bytesElsewhere_ = 0;
    std::uint64_t uniqueBytes_ = 0;
    std::uint64_t repeatedBytes_ = 0;
};

// Lists the records that need one of the given containers.
class Users {
public:
    Users(StatsOptions const& options, std::string const& file, Output& out)
        : json_(options.json), file_(options.json ? JsonName("file", file) : Printable(file)), out_(out) {
        for (std::uint64_t const dcid : std::set(options.uses.begin(), options.uses.end())) {
            wanted_.push_back({dcid});
        }
    }

    void CountSegment(Record const& record, StoredSegment const& segment) {
        Forget();
        if (segment.inContainer) {
            Count({segment.dcid, 1, segment.size});
            PrintUses(record);
        }
    }

    void CountObject(Record const& record, DORecordHeader const* header) {
        Forget();
        ForEachRun(header, [this](Run const& run) { Count(run); });
        PrintUses(record);
    }

    static void CountBad(std::uint64_t) {}

private:
    void Count(Run const& run) {
        auto const at = std::lower_bound(wanted_.begin(), wanted_.end(), run.dcid,
                                         [](ContainerTotals const& a, std::uint64_t dcid) { return a.dcid < dcid; });
        if (at != wanted_.end() && at->dcid == run.dcid) {
            at->segments += run.segments;
            AddBytes(at->bytes, run.bytes);
            ++at->fragments;
        }
    }

    void PrintUses(Record const& record) {
        for (ContainerTotals const& container : wanted_) {
            if (container.fragments != 0) {
                Print(record, container);
            }
        }
    }

    // Clears the sums of the record before, which an overflow may have left.
    void Forget() {
        for (ContainerTotals& container : wanted_) {
            container = {container.dcid};
        }
    }

    void Print(Record const& record, ContainerTotals const& container) {
        if (json_) {
            AppendJsonStart(out_.Buffer(), file_, record, true);
            out_.Print(R"(,"dcid":{},"segments":{},"bytes":{}}})"
                       "\n",
                       Decimal{container.dcid}, Decimal{container.segments}, Decimal{container.bytes});
            return;
        }
        out_.Print("{}: container {}: {} of {}\n", PlaceOf(file_, record), container.dcid,
                   Counted(container.segments, "segment"), WithUnit(container.bytes));
    }

    bool json_;
    std::string file_; // quoted for JSON
    Output& out_;
    std::vector<ContainerTotals> wanted_; // by id; the sums are those of one record
};

ExitCode Stats(StatsOptions const& options, Output& out) {
    if (!options.uses.empty()) {
        return ForEachInput(options.files, options.form, [&](RecordStream& stream) {
            Users users(options, stream.Name(), out);
            return CountInput(stream, users);
        });
    }
    Totals totals(options);
    ExitCode const result =
        ForEachInput(options.files, options.form, [&](RecordStream& stream) { return CountInput(stream, totals); });
    if (totals.Any()) {
        options.json ? totals.PrintJson(out) : totals.PrintTable(out);
    }
    return result;
}

} // namespace

void AddStats(CLI::App& app, Action& chosen) {
    auto const [verb, options] = AddVerb(app, chosen, "stats", "Add up segments and bytes by container", Stats);
    AddFiles(verb, options.files);
    auto* const unique =
        verb.add_flag("--unique", options.unique, "Also count the bytes of different and of repeated segments");
    auto* const top = verb.add_option_function<std::uint64_t>(
        "--top", [&options = options](std::uint64_t count) { options.top = count; },
        "Only the N containers with the most bytes");
    top->check(WholeNumber(kMost64))->type_name("N");
    verb.add_option("--uses", options.uses, "List the records that need this container instead; may be repeated")
        ->check(WholeNumber(kMost64))
        ->type_name("DCID")
        ->allow_extra_args(false)
        ->excludes(unique)
        ->excludes(top);
    verb.add_flag("--json", options.json, "One JSON object; with --uses one for each record and container");
    AddFormOptions(verb, options.form);
    verb.footer("A fragment is a run of consecutive segments of an object in the same container.\n\n"
                "Example:\n  crrecord stats --top 10 --unique *.do");
}

} // namespace crrecord::tool
