#include "verbs/verbs.h"

#include "io/file_facts.h"
#include "io/record_names.h"
#include "record/record_findings.h"
#include "json/name_index.h"

#include <crrecord/DORecordHeader.h>
#include <crrecord/fingerprint.h>

#include <charconv>
#include <thread>

namespace crrecord::tool {

// The text of formats/crrecord.schema.json, in a source file that the build generates.
extern char const kJsonSchemaText[];

namespace {

constexpr int kMany = CLI::detail::expected_max_vector_size;

CLI::Validator NamesAFile() {
    return {[](std::string& name) { return name.empty() ? "found an empty name, expected a file name" : ""; }, ""};
}

void AddToEachVerb(CLI::App& app, std::string const& flag, void (*callback)(), std::string const& description) {
    app.add_flag_callback(flag, callback, description);
    for (CLI::App* const verb : app.get_subcommands([](CLI::App const*) { return true; })) {
        AddToEachVerb(*verb, flag, callback, description);
    }
}

// convert has no such flag: its records keep all digits in every reader.
void AddNumbers(CLI::App& app) {
    auto* const json = app.get_option_no_throw("--json");
    if (json && app.get_name() != "convert") {
        app.add_flag_callback("--numbers", Decimal::UseNumbers, "64-bit numbers in JSON are numbers, not strings")
            ->needs(json);
    }
    for (CLI::App* const verb : app.get_subcommands([](CLI::App const*) { return true; })) {
        AddNumbers(*verb);
    }
}

// Each verb that reads a file of records takes their names, except build, which writes an index, and verify, which
// compares files of these names.
void AddNames(CLI::App& verb) {
    auto* file = verb.get_option_no_throw("FILE");
    file = file ? file : verb.get_option_no_throw("RECORD");
    if (file && verb.get_name() != "build" && verb.get_name() != "verify") {
        auto const index = std::make_shared<std::string>();
        AddFile(verb, "--names", *index,
                "Show the names of the records, from this index that build wrote, instead of their numbers")
            ->type_name("INDEX");
        verb.parse_complete_callback([index, file] {
            if (index->empty()) {
                return;
            }
            if (file->count() > 1) {
                throw Failure(fmt::format("--names: an index is for one FILE, found {}", file->count()));
            }
            if (*index == "-" && (file->empty() || file->results().front() == "-")) {
                throw Failure("standard input can be either the records or their names");
            }
            NameRecords(json::ReadNames(*index));
        });
    }
    for (CLI::App* const part : verb.get_subcommands([](CLI::App const*) { return true; })) {
        AddNames(*part);
    }
}

struct NoOptions {};

ExitCode PrintSchema(NoOptions const&, Output& out) {
    out.Write(kJsonSchemaText);
    return ExitCode::AllWell;
}

void AddSchema(CLI::App& app, Action& chosen) {
    AddVerb(app, chosen, "schema", "Print the JSON Schema of the records' JSON form", PrintSchema)
        .app.footer(
            "It describes a line of show --json and of convert --to json. The lines of other verbs with --json have\n"
            "definitions in its $defs, such as findingsLine, annotateLine or buildLine.\n\n"
            "Example:\n  crrecord schema >crrecord.schema.json");
}

} // namespace

void PrintClosing(Output& out, std::string const& path, bool requested, std::string const& line) {
    if (path != "-") {
        out.Print("{}\n", line);
    } else if (requested) {
        Output error(STDERR_FILENO, "standard error");
        error.Print("{}\n", line);
        error.Flush();
    }
}

// CLI11's vectors read "[a,b]" as two texts and "{}" as no text.
CLI::Option* AddTexts(CLI::App& verb, std::string const& option, std::vector<std::string>& texts,
                      std::string const& description) {
    CLI::callback_t const converted = [](CLI::results_t const&) { return true; };
    auto const take = [&texts, first = true](std::string const& text) mutable {
        if (std::exchange(first, false)) {
            texts.clear(); // the default
        }
        texts.push_back(text);
    };
    return verb.add_option(option, converted, description)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->expected(1, kMany)
        ->each(take);
}

CLI::Option* AddFiles(CLI::App& verb, std::vector<std::string>& files, std::string const& description) {
    // Without lists in brackets CLI11 gives a positional only the least number of texts that it expects.
    return AddTexts(verb, "FILE", files, description)->expected(kMany - 1, kMany)->check(NamesAFile())->type_name("");
}

CLI::Option* AddRepeatedFile(CLI::App& verb, std::string const& option, std::vector<std::string>& files,
                             std::string const& description) {
    return AddTexts(verb, option, files, description)->expected(1)->check(NamesAFile());
}

CLI::Option* AddFile(CLI::App& verb, std::string const& option, std::string& file, std::string const& description) {
    return verb.add_option(option, file, description)->check(NamesAFile())->type_name("");
}

void AddOut(CLI::App& verb, std::string& out, std::string const& what) {
    AddFile(verb, "-o,--out", out, "The " + what + " to write; - is standard output")->required()->type_name("OUT");
}

CLI::Validator WholeNumber(std::uint64_t most) {
    auto const refusal = [most](std::string& text) {
        std::uint64_t number = 0;
        std::from_chars(text.data(), text.data() + text.size(), number);
        bool const whole = number <= most && text == std::to_string(number);
        return whole ? std::string()
                     : fmt::format("found \"{}\", expected a whole number of 0 to {}", Printable(text), most);
    };
    return {refusal, ""};
}

void RefuseToReplace(std::vector<std::string> const& files, std::string const& out, std::string_view written) {
    for (std::string const& file : files) {
        if (IsSameFile(file, out)) {
            throw Failure(fmt::format("{}: is an input itself, which the {} would replace",
                                      out == "-" ? "standard output" : out, written));
        }
    }
}

unsigned int Processors() {
    return std::max(std::thread::hardware_concurrency(), 1U);
}

void AddJobs(CLI::App& verb, unsigned int& jobs) {
    constexpr std::uint64_t kMostJobs = 256;
    auto const most = WholeNumber(kMostJobs);
    verb.add_option("--jobs", jobs, "Threads that work on the records; by default one for each processor")
        ->check(CLI::Validator(
            [most](std::string& text) { return text == "0" ? "found \"0\", expected at least 1" : most(text); }, ""))
        ->type_name("N");
}

void AddFormOptions(CLI::App& verb, FormOptions& options) {
    auto* const serialized =
        verb.add_flag("--serialized", options.serialized, "The input is the exchange form of a DO record");
    auto const add = [&](char const* name, unsigned int& type, unsigned int most, char const* description) {
        auto* const option = verb.add_option(name, type, description);
        option->check(CLI::Range(0U, most).description(""))->type_name("N")->needs(serialized);
        serialized->needs(option);
    };
    add("--dotype", options.dotype, CR_DO_TYPE_LAST, "DO type of the exchange form");
    add("--fptype", options.fptype, CR_FP_TYPE_LAST, "Fingerprint type of the exchange form");
    verb.add_flag("--checksum", options.checksum, "The head of the exchange form has a checksum")->needs(serialized);
}

void AddScan(CLI::App& verb, FormOptions& options) {
    auto* const scan = verb.add_flag("--scan", options.scan, "Search for the next record after bytes that are none");
    if (auto* const serialized = verb.get_option_no_throw("--serialized")) {
        scan->excludes(serialized);
    }
}

void RefuseToOmitInPlace(FormOptions const& options, std::string const& file, std::string const& out) {
    if (options.scan && IsSameFile(file, out)) {
        throw Failure(out + ": is the input itself, whose damaged bytes --scan would omit");
    }
}

bool IsWorthWriting(FormOptions const& options, ExitCode result, std::uint64_t records) {
    return result == ExitCode::AllWell || (options.scan && result == ExitCode::BadRecord && records != 0);
}

std::string OmittedText(FormOptions const& options, std::uint64_t bad) {
    return options.scan && bad != 0 ? fmt::format("; {} bad, omitted", bad) : "";
}

std::string OmittedMembers(FormOptions const& options, std::uint64_t bad) {
    return options.scan ? fmt::format(R"(,"bad_records":{})", Decimal{bad}) : "";
}

void SetUp(RecordStream& stream, FormOptions const& options, Output* lines) {
    if (options.scan) {
        stream.ScanWith(IsValid);
    }
    if (lines) {
        stream.ReportGapsTo([lines, name = stream.Name()](Gap const& gap) {
            Complain(name + ": " + Describe(gap));
            PrintJsonGap(*lines, JsonName("file", name), gap);
        });
    }
}

void AddVerbs(CLI::App& app, Action& chosen) {
    app.name("crrecord");
    app.description("Builds, shows, checks, changes and converts the records of a deduplicating content store.");
    app.set_version_flag("--version", "crrecord " CRRECORD_VERSION);
    app.require_subcommand(1);
    app.footer("Exit status: 0 success; 1 a bad record or a difference; 2 the command failed.");
    for (auto const add :
         {AddBuild, AddShow, AddValidate, AddAnnotate, AddConvert, AddSchema, AddDigest, AddVerify, AddRefs, AddDiff,
          AddStats, AddLive, AddFreed, AddLost, AddRecall, AddRedact, AddMap, AddExtract, AddSegments}) {
        add(app, chosen);
    }
    AddNumbers(app);
    AddNames(app);
    AddToEachVerb(app, "--no-progress", Progress::Disable, "Do not show progress on the terminal");
}

} // namespace crrecord::tool
