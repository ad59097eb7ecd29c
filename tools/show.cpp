// crrecord show: what the records say.

#include "findings.h"
#include "segment_record.h"
#include "verbs.h"

#include <charconv>
#include <limits>
#include <ostream>
#include <streambuf>

namespace crrecord::tool {

namespace {

struct Range {
    std::uint64_t first = 1;
    std::uint64_t last = std::numeric_limits<std::uint64_t>::max();
};

struct ShowOptions {
    std::vector<std::string> files{"-"};
    Range records;
    bool text = false;
    bool json = false;
    bool showKeys = false;
};

// FROM:TO, where either may be missing.
Range ParseRange(std::string const& text) {
    Range range;
    char const* const end = text.data() + text.size();
    char const* const colon = std::find(text.data(), end, ':');
    auto const read = [](char const* from, char const* to, std::uint64_t& number) {
        auto const [stop, error] = std::from_chars(from, to, number);
        return from == to || (error == std::errc() && stop == to);
    };
    if (colon == end || !read(text.data(), colon, range.first) || !read(colon + 1, end, range.last) ||
        range.first == 0 || range.last < range.first) {
        throw CLI::ValidationError("--records", "\"" + text + "\" is not FROM:TO, such as 1:20, 21: or :20");
    }
    return range;
}

// Takes what the library writes to a stream.
class OutputBuffer : public std::streambuf {
public:
    explicit OutputBuffer(Output& output) : output_(output) {}

private:
    std::streamsize xsputn(char const* text, std::streamsize size) override {
        output_.Write({text, static_cast<std::size_t>(size)});
        return size;
    }
    int_type overflow(int_type character) override {
        char const text = traits_type::to_char_type(character);
        output_.Write({&text, 1});
        return character;
    }

    Output& output_;
};

class Shower {
public:
    Shower(ShowOptions const& options, Output& out)
        : options_(options), out_(out), textBuffer_(out), textStream_(&textBuffer_) {
        // Failures to write pass through the stream.
        textStream_.exceptions(std::ios::badbit);
    }

    ExitCode ShowInput(RecordStream& stream) {
        ExitCode result = ExitCode::AllWell;
        bool headed = false;
        while (Record const* const record = stream.Next()) {
            if (record->number > options_.records.last) {
                break;
            }
            if (record->number < options_.records.first && !record->endsTooEarly && record->kind != Kind::Unknown) {
                continue;
            }
            if (!Diagnose(*record, Extent::FirstError, findings_)) {
                ShowBad(stream.Name(), *record);
                result = ExitCode::BadRecord;
                continue;
            }
            if (!std::exchange(headed, true)) {
                Head(stream.Name());
            }
            ShowGood(*record);
        }
        return result;
    }

    void ShowTotals() {
        if (!options_.json && !options_.text) {
            out_.Print("\n{} in {}, describing {} of segments\n", Counted(records_, "record"),
                       Counted(recordBytes_, "byte"), Counted(segmentBytes_, "byte"));
        }
    }

private:
    void Head(std::string const& name) {
        quotedName_ = JsonQuoted(name);
        if (options_.json || options_.text) {
            return;
        }
        if (options_.files.size() > 1) {
            out_.Print("{}{}:\n", records_ == 0 ? "" : "\n", Printable(name));
        }
        AppendSegmentHeading(out_.Buffer(), options_.showKeys);
    }

    void ShowGood(Record const& record) {
        if (options_.text) {
            SegmentRecordToStream(textStream_, AsSegmentRecord(record), false);
            out_.Write("\n");
            return;
        }
        TurnSegmentRecord(record, Order::Host);
        if (options_.json) {
            AppendJsonStart(out_.Buffer(), quotedName_, record, true);
            AppendSegmentJson(out_.Buffer(), record, options_.showKeys);
            out_.Write("}\n");
            return;
        }
        AppendSegmentRow(out_.Buffer(), record, options_.showKeys);
        out_.FlushWhenFull();
        ++records_;
        recordBytes_ += record.size;
        segmentBytes_ += AsSegmentRecord(record).size;
    }

    void ShowBad(std::string const& name, Record const& record) {
        Complain(Describe(name, record, findings_.front()));
        if (options_.json) {
            AppendJsonStart(out_.Buffer(), JsonQuoted(name), record, false);
            AppendJsonFindings(out_.Buffer(), findings_);
            out_.Write("}\n");
        }
    }

    ShowOptions const& options_;
    Output& out_;
    OutputBuffer textBuffer_;
    std::ostream textStream_;
    std::vector<Finding> findings_;
    std::string quotedName_;
    std::uint64_t records_ = 0;
    std::uint64_t recordBytes_ = 0;
    std::uint64_t segmentBytes_ = 0;
};

ExitCode Show(ShowOptions const& options, Output& out) {
    Shower shower(options, out);
    ExitCode const result = ForEachInput(options.files, [&](RecordStream& stream) { return shower.ShowInput(stream); });
    shower.ShowTotals();
    return result;
}

} // namespace

void AddShow(CLI::App& app, Action& chosen) {
    auto const options = std::make_shared<ShowOptions>();
    CLI::App* const verb = app.add_subcommand("show", "Show what the records say");
    verb->add_option("FILE", options->files, "Files of records, one behind the other; - is standard input")
        ->type_name("");
    verb->add_option_function<std::string>(
            "--records", [options](std::string const& text) { options->records = ParseRange(text); },
            "Only these records of each file, counted from 1, such as 1:20, 21: or :20")
        ->type_name("FROM:TO");
    auto* const json = verb->add_flag("--json", options->json, "One JSON object a line for each record, every field");
    verb->add_flag("--text", options->text, "The one-line text form of each record")->excludes(json);
    verb->add_flag("--show-keys", options->showKeys, "Show the key bytes, which are masked otherwise");
    verb->footer("A record's byte order is found out record by record. Bad records are told on standard error.\n\n"
                 "Example:\n  crrecord show --records 1:20 movie.seg");
    verb->callback([options, &chosen] { chosen = [options](Output& out) { return Show(*options, out); }; });
}

} // namespace crrecord::tool
