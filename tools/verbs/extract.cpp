// crrecord extract: the bytes of some records, unchanged.

#include "io/line_reader.h"
#include "record/record_findings.h"
#include "record/show_object.h"
#include "verbs/verbs.h"

#include <charconv>

namespace crrecord::tool {

namespace {

constexpr std::uint64_t kMostRecords = std::numeric_limits<std::uint64_t>::max();

struct ExtractOptions {
    std::string file;
    std::string out;
    std::optional<std::vector<Range>> records;
    std::string recordsFrom;
    std::optional<double> sample; // 0 to 1
    FormOptions form;             // without its form
    bool good = false;
    bool json = false;
};

// Reads "3,7:20". Throws: CLI::ValidationError.
std::vector<Range> ParseRecords(std::string const& text) {
    std::vector<Range> ranges;
    for (std::size_t start = 0; start <= text.size();) {
        std::size_t const end = std::min(text.find(',', start), text.size());
        std::string const part = text.substr(start, end - start);
        ranges.push_back(ParseRange("--records", part, 1));
        start = end + 1;
    }
    return ranges;
}

// Reads "2.5%". Throws: CLI::ValidationError.
double ParseShare(std::string const& text) {
    double percent = 0;
    char const* const end = text.data() + text.size();
    auto const [stop, error] = std::from_chars(text.data(), end, percent);
    if (error != std::errc() || std::string_view(stop, end) != "%" || !(percent >= 0 && percent <= 100)) {
        throw CLI::ValidationError("--sample", fmt::format("found \"{}\", expected 0% to 100%", Printable(text)));
    }
    return percent / 100;
}

// The numbers of the wanted records, for records in ascending order.
class Selection {
public:
    explicit Selection(ExtractOptions const& options) : share_(options.sample) {
        if (!options.recordsFrom.empty()) {
            for (std::uint64_t const number : ReadNumbers(options.recordsFrom, "the number of a record")) {
                if (number == 0) {
                    throw Failure(options.recordsFrom + ": found 0, expected the number of a record, counted from 1");
                }
                ranges_.push_back({number, number});
            }
        } else {
            ranges_ = options.records.value_or(std::vector<Range>{{1, kMostRecords}});
        }
        std::sort(ranges_.begin(), ranges_.end(), [](Range const& a, Range const& b) { return a.first < b.first; });
        for (Range const& range : ranges_) {
            last_ = std::max(last_, range.last);
        }
        hasAll_ = !options.records && options.recordsFrom.empty();
    }

    bool Has(std::uint64_t number) {
        for (; next_ != ranges_.size() && ranges_[next_].first <= number; ++next_) {
            reach_ = std::max(reach_, ranges_[next_].last);
        }
        return number <= reach_ && (!share_ || Position(number) < *share_);
    }

    // The greatest wanted number, 0 for none.
    std::uint64_t Last() const { return last_; }

    // Throws: Failure if a number or a range starts after the last record.
    void ThrowIfMissing(std::string const& file, std::uint64_t records) const {
        if (!hasAll_ && !ranges_.empty() && ranges_.back().first > records) {
            throw Failure(fmt::format("{}: no record {}: the last one is {}", file, ranges_.back().first, records));
        }
    }

private:
    // Returns: a number from 0 to 1 that looks random and is the same in each run (the finalizer of MurmurHash3).
    static double Position(std::uint64_t number) {
        number ^= number >> 33;
        number *= 0xff51afd7ed558ccdUL;
        number ^= number >> 33;
        number *= 0xc4ceb9fe1a85ec53UL;
        number ^= number >> 33;
        return static_cast<double>(number >> 11) * 0x1p-53;
    }

    std::optional<double> share_;
    std::vector<Range> ranges_; // by first number
    bool hasAll_ = false;
    std::size_t next_ = 0;    // the first range that starts after the record
    std::uint64_t reach_ = 0; // the greatest end of the ranges before it
    std::uint64_t last_ = 0;
};

struct Extracted {
    std::uint64_t records = 0;
    std::uint64_t bytes = 0;
    std::uint64_t bad = 0; // wanted ones
};

ExitCode ExtractRecords(RecordStream& stream, Selection& selection, bool onlyGood, OutputFile& to, Extracted& tally) {
    std::uint64_t seen = 0;
    ExitCode result = ExitCode::AllWell;
    std::vector<Finding> findings;
    while (seen < selection.Last()) {
        Record const* const record = stream.Next();
        if (!record) {
            selection.ThrowIfMissing(stream.Name(), seen);
            break;
        }
        seen = record->number;
        bool const isWanted = selection.Has(seen);
        bool const isWhole = !record->endsTooEarly && !record->open && record->kind != Kind::Unknown;
        if (!isWanted && isWhole) {
            continue;
        }
        bool const isValid = CheckRecord(stream.Name(), *record, findings);
        result = isValid ? result : ExitCode::BadRecord;
        tally.bad += isValid || !isWanted ? 0 : 1;
        if (!isWanted || (onlyGood && !isValid)) {
            continue;
        }
        ++tally.records;
        do {
            to.Write(record->bytes, record->size);
            tally.bytes += record->size;
        } while (stream.NextBlock());
    }
    stream.ThrowIfChanged();
    return result;
}

std::string ClosingLine(ExtractOptions const& options, Extracted const& tally) {
    if (options.json) {
        return fmt::format(R"({},"file":{},"out":{},"records":{},"bytes":{},"bad_records":{}}})", JsonStart(),
                           JsonName("file", options.file), JsonName("out", options.out), Decimal{tally.records},
                           Decimal{tally.bytes}, Decimal{tally.bad});
    }
    return fmt::format("{}: {}, {}{}", Printable(options.out), Counted(tally.records, "record"),
                       Counted(tally.bytes, "byte"),
                       tally.bad == 0 ? "" : fmt::format("; {} bad{}", tally.bad, options.good ? ", omitted" : ""));
}

ExitCode Extract(ExtractOptions const& options, Output& out) {
    RefuseToReplace({options.file, options.recordsFrom}, options.out, "records");
    if (options.file == "-" && options.recordsFrom == "-") {
        throw Failure("standard input can be either the records or their numbers");
    }
    Selection selection(options);
    RecordStream stream(options.file);
    SetUp(stream, options.form, nullptr);
    OutputFile to(options.out, {options.file});
    Extracted tally;
    ExitCode const result = ExtractRecords(stream, selection, options.good, to, tally);
    to.Commit();
    PrintClosing(out, options.out, options.json, ClosingLine(options, tally));
    return result;
}

} // namespace

void AddExtract(CLI::App& app, Action& chosen) {
    auto const [verb, options] = AddVerb(app, chosen, "extract", "Write the bytes of some records, unchanged", Extract);
    AddFile(verb, "FILE", options.file, "A file of records; - is standard input")->required();
    AddOut(verb, options.out);
    auto* const records =
        verb.add_option_function<std::string>(
                "--records", [&options = options](std::string const& text) { options.records = ParseRecords(text); },
                "Only these records, counted from 1, such as 3,7:20 or 21:")
            ->type_name("LIST");
    AddFile(verb, "--records-from", options.recordsFrom,
            "Only the records whose numbers are in this file, one on each line; - is standard input")
        ->type_name("NUMBERS")
        ->excludes(records);
    verb.add_option_function<std::string>(
            "--sample", [&options = options](std::string const& text) { options.sample = ParseShare(text); },
            "Only about this share of them, such as 0.1%, the same ones in each run")
        ->type_name("P%");
    verb.add_flag("--good", options.good, "Omit bad records");
    AddScan(verb, options.form);
    verb.add_flag("--json", options.json, "The closing line as a JSON object");
    verb.footer(
        "The records are written in the order of FILE, each once. Bad records are reported on standard error: status "
        "1;\n"
        "OUT has their bytes, or with --good only valid records. --scan --good saves the valid records of a damaged "
        "file.\n\n"
        "Example:\n  crrecord show --json movie.seg | jq -r 'select(.size == \"131072\") | .record' |\n"
        "    crrecord extract --records-from - movie.seg -o some.seg\n"
        "  crrecord extract --scan --good damaged.records -o saved.records");
}

} // namespace crrecord::tool
