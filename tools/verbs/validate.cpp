// crrecord validate: the findings of each record.

#include "record/parallel_records.h"
#include "record/validation_tally.h"
#include "verbs/verbs.h"

namespace crrecord::tool {

namespace {

struct ValidateOptions {
    std::vector<std::string> files{"-"};
    FormOptions form;
    unsigned int jobs = Processors();
    bool firstOnly = false;
    bool badOnly = false;
    bool json = false;
    bool quiet = false;
};

struct ValidatePart : RecordPart {
    using RecordPart::RecordPart;

    ValidationTally tally;
};

void PrintSummary(Output& out, std::string const& name, ValidationTally const& tally) {
    out.Print("{}: {}, {}: ", Printable(name), Counted(tally.records, "record"), Counted(tally.bytes, "byte"));
    if (tally.bad == 0) {
        out.Paint("all valid", Colour::Good);
    } else {
        out.Paint(fmt::format("{} bad", tally.bad), Colour::Bad);
        out.Print(", {} valid", tally.records - tally.bad);
    }
    if (tally.notes != 0) {
        out.Print(", {}", Counted(tally.notes, "note"));
    }
    if (tally.gaps.skipped != 0) {
        out.Print(", {} skipped", Counted(tally.gaps.skipped, "byte"));
    }
    if (tally.gaps.unread != 0U) {
        out.Print(", {} not read", tally.gaps.unread ? Counted(*tally.gaps.unread, "byte") : "the rest");
    }
    out.Write("\n");
}

ExitCode ValidateInput(RecordStream& stream, ValidateOptions const& options, ValidationTally& total, Output& out) {
    Depth const depth = options.firstOnly ? Depth::FirstError : Depth::Everything;
    std::string const quotedName = JsonName("file", stream.Name());
    ValidationTally tally;
    if (options.quiet) {
        stream.ReportGapsTo([](Gap const&) {});
    }
    auto const work = [&](Record& record, ValidatePart& part) {
        bool const valid = Diagnose(record, depth, part.findings);
        part.tally.Add(valid, part.findings.size());
        if (options.badOnly && valid) {
            return true;
        }
        if (options.json) {
            PrintJsonFindings(part.out, quotedName, record, valid, part.findings);
        } else if (!options.quiet) {
            for (Finding const& finding : part.findings) {
                part.out.PaintLine(Printable(Describe(stream.Name(), record, finding)), ColourOf(finding));
            }
        }
        return true;
    };
    auto const use = [&](ValidatePart& part) {
        tally.Add(part.tally);
        part.tally = {};
    };
    ParallelRecords<ValidatePart>(
        stream, options.jobs, out,
        {.make = [](Output::PartOf of) { return std::make_unique<ValidatePart>(of); }, .work = work, .use = use})
        .Run();
    tally.AddSizes(stream);
    total.Add(tally);
    total.AddSizes(stream);
    if (!options.json && !options.quiet) {
        PrintSummary(out, stream.Name(), tally);
    }
    return tally.bad == 0 ? ExitCode::AllWell : ExitCode::BadRecord;
}

ExitCode Validate(ValidateOptions const& options, Output& out) {
    ValidationTally total;
    std::uint64_t files = 0;
    ExitCode const result =
        ForEachInput(options.files, options.form, options.json ? &out : nullptr, [&](RecordStream& stream) {
            ++files;
            return ValidateInput(stream, options, total, out);
        });
    if (options.json) {
        total.PrintJson(out, files);
    }
    return result;
}

} // namespace

void AddValidate(CLI::App& app, Action& chosen) {
    auto const [verb, options] =
        AddVerb(app, chosen, "validate", "Report the errors and notes of each record", Validate);
    AddFiles(verb, options.files);
    verb.add_flag("--first", options.firstOnly, "Only the first error of each record, and no notes");
    verb.add_flag("--bad-only", options.badOnly, "Only the findings of bad records");
    auto* const json =
        verb.add_flag("--json", options.json, "One JSON object on a line for each record, and one with the total");
    verb.add_flag("--quiet", options.quiet, "No output but the exit status")->excludes(json);
    AddFormOptions(verb, options.form);
    AddScan(verb, options.form);
    AddJobs(verb, options.jobs);
    verb.footer(
        "A record with an error must not be used. A record with a note is usable but differs from one that the "
        "library\n"
        "writes. Each line has the file, the record and its offset, the finding's name, the field and its offset, the\n"
        "value found and the value expected.\n\n"
        "Example:\n  crrecord validate movie.do");
}

} // namespace crrecord::tool
