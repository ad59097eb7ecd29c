// crrecord show: the content of records.

#include "analysis/segment_csv.h"
#include "record/do_record.h"
#include "record/record_findings.h"
#include "record/segment_record.h"
#include "record/show_object.h"
#include "verbs/verbs.h"
#include "json/writer.h"

#include <boost/iostreams/stream.hpp>

namespace crrecord::tool {

namespace {

struct ShowOptions {
    std::vector<std::string> files{"-"};
    FormOptions form;
    Range records{1};
    std::optional<Range> segments;
    bool text = false;
    bool json = false;
    bool csv = false;
    bool showKeys = false;

    // The tables and sums for people.
    bool IsTable() const { return !text && !json && !csv; }
};

// Receives what the library writes to a stream. The text form has unsafe bytes, which are replaced on a terminal.
struct TextSink {
    using char_type = char;
    using category = boost::iostreams::sink_tag;

    std::streamsize write(char const* text, std::streamsize size) const {
        std::string_view const bytes(text, static_cast<std::size_t>(size));
        out->IsTerminal() ? out->Write(Printable(bytes)) : out->Write(bytes);
        return size;
    }

    Output* out;
};

class Shower {
public:
    Shower(ShowOptions const& options, Output& out) : options_(options), out_(out), textStream_(TextSink{&out}, 0) {
        // A stream swallows the exceptions of its buffer unless it may throw itself.
        textStream_.exceptions(std::ios::badbit);
    }

    ExitCode ShowInput(RecordStream& stream) {
        ExitCode result = ExitCode::AllWell;
        bool headed = false;
        std::uint64_t passed = 0;
        while (Record const* const record = stream.Next()) {
            if (record->number > options_.records.last) {
                break;
            }
            if (record->number < options_.records.first && !record->endsTooEarly && !record->open &&
                record->kind != Kind::Unknown) {
                ++passed;
                continue;
            }
            if (!CheckRecord(stream.Name(), *record, findings_)) {
                result = ExitCode::BadRecord;
                if (options_.json) {
                    PrintJsonFindings(out_, JsonName("file", stream.Name()), *record, false, findings_);
                }
                continue;
            }
            if (!std::exchange(headed, true)) {
                quotedName_ = JsonName("file", stream.Name());
                HeadInput(stream.Name());
            }
            if (record->kind == Kind::Segment) {
                ShowSegment(*record);
            } else {
                ShowObject(stream.Name(), *record);
            }
        }
        if (!headed && result == ExitCode::AllWell && options_.IsTable()) {
            out_.Print("{}: no records in this range: the last one is {}, counted from 1\n", Printable(stream.Name()),
                       passed);
        }
        return result;
    }

    void ShowTotals() {
        if (options_.IsTable() && records_ != 0) {
            out_.Print("\n{} in {}, describing {} of segments\n",
                       Counted(records_, objects_ == 0 ? "record" : "segment record"), Counted(recordBytes_, "byte"),
                       segmentBytes_ ? Counted(*segmentBytes_, "byte") : "more than 2^64 - 1 bytes");
        }
    }

private:
    void HeadInput(std::string const& name) {
        inTable_ = false;
        if (options_.IsTable() && options_.files.size() > 1) {
            out_.Print("{}{}:\n", records_ + objects_ == 0 ? "" : "\n", Printable(name));
        }
    }

    void ShowSegment(Record const& record) {
        if (options_.text) {
            SegmentRecordToStream(textStream_, AsSegmentRecord(record), false);
            out_.Write("\n");
            return;
        }
        if (options_.csv) {
            PrintSegmentCsv(out_, record);
            return;
        }
        ConvertRecord(record, Order::Host);
        if (options_.json) {
            AppendJsonStart(out_.Buffer(), quotedName_, record, true);
            json::WriteSegmentRecord(out_, record, options_.showKeys);
            return;
        }
        if (!std::exchange(inTable_, true)) {
            PrintSegmentHeading(out_, options_.showKeys);
        }
        AppendSegmentRow(out_.Buffer(), record, options_.showKeys);
        out_.FlushWhenFull();
        ++records_;
        recordBytes_ += record.size;
        AddSegmentBytes(AsSegmentRecord(record).size);
    }

    void AddSegmentBytes(std::uint64_t bytes) {
        if (segmentBytes_ && __builtin_add_overflow(*segmentBytes_, bytes, &*segmentBytes_)) {
            segmentBytes_.reset();
        }
    }

    // Shows a DO record, or the one made from an exchange form.
    void ShowObject(std::string const& name, Record const& record) {
        std::unique_ptr<DORecord> opened;
        if (options_.text || record.kind == Kind::Form) {
            opened = OpenDORecord(name, record);
        }
        if (options_.text) {
            opened->ToStream(textStream_, false);
            out_.Write("\n");
            return;
        }
        auto const bytes = opened ? BytesOf(*opened) : std::span<unsigned char const>(record.bytes, record.size);
        DORecordView const view(bytes.data(), bytes.size());
        if (options_.json) {
            AppendJsonStart(out_.Buffer(), quotedName_, record, true);
            json::WriteObject(out_, view, options_.segments.value_or(Range{}));
            return;
        }
        if (options_.csv) {
            PrintObjectCsv(out_, record, view, options_.segments.value_or(Range{}));
            return;
        }
        PrintObject(out_, record, view, options_.segments.value_or(kFirstSegments));
        inTable_ = false;
        ++objects_;
    }

    ShowOptions const& options_;
    Output& out_;
    boost::iostreams::stream<TextSink> textStream_; // without a buffer
    std::vector<Finding> findings_;
    std::string quotedName_;
    bool inTable_ = false; // of segment records
    std::uint64_t objects_ = 0;
    std::uint64_t records_ = 0; // segment records
    std::uint64_t recordBytes_ = 0;
    std::optional<std::uint64_t> segmentBytes_ = 0; // std::nullopt after an overflow
};

ExitCode Show(ShowOptions const& options, Output& out) {
    if (options.csv) {
        if (options.files.size() > 1) {
            throw Failure("--csv reads one FILE, because its rows do not name the file");
        }
        out.Write(kSegmentCsvHead);
    }
    Shower shower(options, out);
    ExitCode const result = ForEachInput(options.files, options.form, options.json ? &out : nullptr,
                                         [&](RecordStream& stream) { return shower.ShowInput(stream); });
    shower.ShowTotals();
    return result;
}

} // namespace

void AddShow(CLI::App& app, Action& chosen) {
    auto const [verb, options] = AddVerb(app, chosen, "show", "Show the content of records", Show);
    AddFiles(verb, options.files);
    verb.add_option_function<std::string>(
            "--records",
            [&options = options](std::string const& text) { options.records = ParseRange("--records", text, 1); },
            "Only these records of each file, counted from 1, such as 3, 1:20, 21: or :20")
        ->type_name("N|FROM:TO");
    verb.add_option_function<std::string>(
            "--segments",
            [&options = options](std::string const& text) {
                options.segments = text == "none" ? kNoSegments : ParseRange("--segments", text, 0);
            },
            "Only these segments of DO records, counted from 0, such as 0:19, or none; by default 0:19, with --json "
            "and --csv all")
        ->type_name("N|FROM:TO|none");
    auto* const json = verb.add_flag("--json", options.json, "One JSON object on a line for each record, every field");
    auto* const text = verb.add_flag("--text", options.text, "The one-line text form of each record")->excludes(json);
    verb.add_flag("--csv", options.csv, "A line for each segment: record, segment, fingerprint, size, offset, dcid")
        ->excludes(json)
        ->excludes(text);
    verb.add_flag("--show-keys", options.showKeys, "Show the key bytes, which are masked otherwise");
    AddFormOptions(verb, options.form);
    AddScan(verb, options.form);
    verb.footer("The kind and byte order of each record are detected. Bad records are reported on standard error.\n\n"
                "Example:\n  crrecord show --segments 100:119 movie.do");
}

} // namespace crrecord::tool
