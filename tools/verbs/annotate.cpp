// crrecord annotate: every byte of the records, and the way back.

#include "anatomy/read_back.h"
#include "anatomy/rows.h"
#include "record/record_findings.h"
#include "verbs/verbs.h"

namespace crrecord::tool {

namespace {

struct AnnotateOptions {
    std::vector<std::string> files{"-"};
    FormOptions form;
    bool json = false;
    std::string text; // of the way back
    std::string out;
};

template <class Rows>
void AddRows(Rows& rows, Record const& record) {
    Walk(record, [&rows, &record](Row const& row) { rows.Add(record.offset, row); });
}

template <class Rows>
ExitCode AnnotateInput(RecordStream& stream, Rows rows) {
    ExitCode result = ExitCode::AllWell;
    std::vector<Finding> findings;
    while (Record const* const record = stream.Next()) {
        bool const valid = Diagnose(*record, Depth::Everything, findings);
        std::stable_sort(findings.begin(), findings.end(),
                         [](Finding const& a, Finding const& b) { return a.offset < b.offset; });
        rows.Begin(*record, valid, findings);
        do {
            AddRows(rows, *record);
        } while (record->kind == Kind::Unknown && stream.NextBlock());
        rows.End(findings);
        result = valid ? result : ExitCode::BadRecord;
    }
    return result;
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
    return ForEachInput(options.files, options.form, [&](RecordStream& stream) {
        return options.json ? AnnotateInput(stream, JsonRows(out, stream.Name()))
                            : AnnotateInput(stream, TextRows(out, stream.Name()));
    });
}

} // namespace

void AddAnnotate(CLI::App& app, Action& chosen) {
    auto const options = std::make_shared<AnnotateOptions>();
    CLI::App* const verb = app.add_subcommand("annotate", "Say of every byte what it is, of broken records too");
    auto* const files = AddFiles(*verb, options->files);
    auto* const json = verb->add_flag("--json", options->json, "One JSON object a line for each record");
    AddFormOptions(*verb, options->form);
    auto* const reverse = AddFile(*verb, "--reverse", options->text,
                                  "Write the bytes of what annotate printed of one file, or of it after an edit")
                              ->type_name("TEXT");
    auto* const written =
        AddFile(*verb, "-o,--out", options->out, "The file that --reverse writes; - is standard output")
            ->type_name("OUT")
            ->needs(reverse);
    reverse->needs(written)->excludes(files)->excludes(json)->excludes(verb->get_option("--serialized"));
    verb->footer(
        "A line has the offset in the file (hexadecimal), up to sixteen bytes, and the section, the field and the "
        "value\n"
        "that they are. A line of !! has the finding about the byte above its ^^. What the record's counts ask for "
        "and\n"
        "is not there is told on a line without bytes.\n\n"
        "--reverse takes the bytes and leaves the rest: each line with bytes begins with the offset at which the one "
        "in\n"
        "front of it ended, and lines that are empty or begin with #, ! or a blank have none. Bytes may be changed,\n"
        "which makes a record that is broken as you want it. A text without bytes is refused.\n\n"
        "The text has all of the record, key bytes too. For what may leave the house: crrecord redact.\n\n"
        "Example:\n  crrecord annotate movie.do >movie.txt\n  crrecord annotate --reverse movie.txt -o movie.do");
    verb->callback([options, &chosen] { chosen = [options](Output& out) { return Annotate(*options, out); }; });
}

} // namespace crrecord::tool
