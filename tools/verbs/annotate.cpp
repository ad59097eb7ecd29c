// crrecord annotate: every byte of the records as text, and that text as bytes again.

#include "anatomy/read_back.h"
#include "anatomy/rows.h"
#include "record/parallel_records.h"
#include "verbs/verbs.h"

namespace crrecord::tool {

namespace {

struct AnnotateOptions {
    std::vector<std::string> files{"-"};
    FormOptions form;
    unsigned int jobs = Processors();
    bool json = false;
    std::string text; // of --reverse
    std::string out;
};

template <class Rows>
struct AnnotatePart : RecordPart {
    AnnotatePart(Output::PartOf of, std::string_view file) : RecordPart(of), rows(out, file) {}

    Rows rows;
};

template <class Rows>
ExitCode AnnotateInput(RecordStream& stream, unsigned int jobs, Output& out) {
    using Part = AnnotatePart<Rows>;
    auto const work = [&stream](Record& record, Part& part) {
        bool const valid = Diagnose(record, Depth::Everything, part.findings);
        std::stable_sort(part.findings.begin(), part.findings.end(),
                         [](Finding const& a, Finding const& b) { return a.offset < b.offset; });
        part.rows.Begin(record, valid, part.findings);
        do {
            Walk(record, [&](Row const& row) { part.rows.Add(record.offset, row); });
        } while (record.open && stream.NextBlock());
        part.rows.End(part.findings);
        part.result = valid ? part.result : ExitCode::BadRecord;
        return true;
    };
    auto const make = [&stream](Output::PartOf of) { return std::make_unique<Part>(of, stream.Name()); };
    // The text is some ten times as long as the record.
    return ParallelRecords<Part>(stream, jobs, out, {.make = make, .work = work, .largest = kReadBlock}).Run();
}

ExitCode ReadBackFile(AnnotateOptions const& options, Output& out) {
    RefuseToReplace({options.text}, options.out, "bytes");
    Input text(options.text);
    OutputFile to(options.out, {options.text});
    try {
        std::uint64_t const size = ReadBack(text, to);
        to.Commit();
        PrintClosing(out, options.out, false, fmt::format("{}: {}", Printable(options.out), Counted(size, "byte")));
        return ExitCode::AllWell;
    } catch (BadText const& bad) {
        Complain(bad.what());
        text.ThrowIfChanged();
        return ExitCode::BadRecord;
    }
}

ExitCode Annotate(AnnotateOptions const& options, Output& out) {
    if (!options.text.empty()) {
        return ReadBackFile(options, out);
    }
    return ForEachInput(options.files, options.form, options.json ? &out : nullptr, [&](RecordStream& stream) {
        return (options.json ? AnnotateInput<JsonRows> : AnnotateInput<TextRows>)(stream, options.jobs, out);
    });
}

} // namespace

void AddAnnotate(CLI::App& app, Action& chosen) {
    auto const [verb, options] =
        AddVerb(app, chosen, "annotate", "Show the meaning of every byte, also of broken records", Annotate);
    auto* const files = AddFiles(verb, options.files);
    auto* const json = verb.add_flag("--json", options.json, "One JSON object on a line for each record");
    AddFormOptions(verb, options.form);
    AddScan(verb, options.form);
    AddJobs(verb, options.jobs);
    auto* const reverse =
        AddFile(verb, "--reverse", options.text, "Write the bytes of a text that annotate printed, which may be edited")
            ->type_name("TEXT");
    auto* const written = AddFile(verb, "-o,--out", options.out, "The file that --reverse writes; - is standard output")
                              ->type_name("OUT")
                              ->needs(reverse);
    reverse->needs(written)
        ->excludes(files)
        ->excludes(json)
        ->excludes(verb.get_option("--serialized"))
        ->excludes(verb.get_option("--scan"));
    verb.footer(
        "A line has the offset in the file (hexadecimal), up to sixteen bytes, and their section, field and value. A\n"
        "line of !! has the finding about the byte above its ^^. A line without bytes reports missing bytes.\n\n"
        "--reverse writes the bytes of such a text. Each line of bytes starts with its offset, which is the end of "
        "the\n"
        "line before. Lines that are empty or start with #, ! or a blank are ignored. Edit the bytes to make a record\n"
        "that is broken in a chosen way. A text without bytes is an error.\n\n"
        "The text has the whole record with its keys. Use crrecord redact before you send records to others.\n\n"
        "Example:\n  crrecord annotate movie.do >movie.txt\n"
        "  crrecord annotate --reverse movie.txt -o movie.do");
}

} // namespace crrecord::tool
