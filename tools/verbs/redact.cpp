// crrecord redact: records that are safe to send to others.

#include "record/record_findings.h"
#include "redaction/redact_record.h"
#include "verbs/verbs.h"

namespace crrecord::tool {

namespace {

struct RedactOptions {
    std::vector<std::string> files;
    std::string out;
    std::string key;
    FormOptions form;
    bool json = false;
};

struct Redacted {
    std::uint64_t records = 0;
    std::uint64_t bytes = 0;
};

// What a key may be: enough that nobody tries them all, and nothing that was named by mistake.
constexpr std::size_t kLeastKey = 16;
constexpr std::size_t kLargestKey = 4096;

std::vector<unsigned char> ReadKey(RedactOptions const& options) {
    Input input(options.key);
    std::vector<unsigned char> key(kLargestKey + 1);
    std::size_t size = 0;
    while (std::size_t const count = input.Read(std::span(key).subspan(size))) {
        size += count;
    }
    if (size < kLeastKey || size > kLargestKey) {
        throw Failure(fmt::format("{}: a key has {} to {} bytes", options.key, kLeastKey, kLargestKey));
    }
    key.resize(size);
    return key;
}

Pseudonyms MakePseudonyms(RedactOptions const& options) {
    return options.key.empty() ? Pseudonyms(RandomSecret()) : Pseudonyms(ReadKey(options));
}

ExitCode RedactInput(RecordStream& stream, OutputFile& to, Pseudonyms& pseudonyms, Redacted& tally) {
    std::vector<Finding> findings;
    while (Record const* const record = stream.Next()) {
        if (!Diagnose(*record, Depth::FirstError, findings)) {
            Complain(Describe(stream.Name(), *record, findings.front()));
            return ExitCode::BadRecord;
        }
        tally.bytes += WriteRedacted(to, stream.Name(), *record, pseudonyms);
        ++tally.records;
    }
    return ExitCode::AllWell;
}

std::string ClosingLine(RedactOptions const& options, Redacted const& tally) {
    if (options.json) {
        return fmt::format(R"({},"out":{},"records":"{}","bytes":"{}"}})", JsonStart(), JsonQuoted(options.out),
                           tally.records, tally.bytes);
    }
    return fmt::format("{}: {} redacted, {}", Printable(options.out), Counted(tally.records, "record"),
                       Counted(tally.bytes, "byte"));
}

ExitCode Redact(RedactOptions const& options, Output& out) {
    RefuseToReplace(options.files, options.out, "redacted records");
    RefuseToReplace({options.key}, options.out, "redacted records");
    if (options.key == "-" && std::find(options.files.begin(), options.files.end(), "-") != options.files.end()) {
        throw Failure("standard input can be either the records or the key");
    }
    Pseudonyms pseudonyms = MakePseudonyms(options);
    OutputFile to(options.out, options.files);
    Redacted tally;
    ExitCode const result = ForEachInput(
        options.files, options.form, [&](RecordStream& stream) { return RedactInput(stream, to, pseudonyms, tally); });
    // Of a broken record nobody can say where it holds what; and a part of the records is not what was asked for.
    if (result == ExitCode::AllWell) {
        to.Commit();
        PrintClosing(out, options.out, options.json, ClosingLine(options, tally));
    }
    return result;
}

} // namespace

void AddRedact(CLI::App& app, Action& chosen) {
    auto const options = std::make_shared<RedactOptions>();
    CLI::App* const verb = app.add_subcommand("redact", "Replace what identifies data by pseudonyms");
    AddFiles(*verb, options->files)->required();
    AddFile(*verb, "-o,--out", options->out, "The file to write; - is standard output")->required()->type_name("OUT");
    AddFile(*verb, "--key", options->key,
            "A file of 16 to 4096 random bytes: the same key gives the same pseudonyms, in any run")
        ->type_name("KEY");
    AddFormOptions(*verb, options->form);
    verb->add_flag("--json", options->json, "The closing line as a JSON object");
    verb->footer(
        "Fingerprints, containers, paths, references and checksums become pseudonyms, equal ones where they were\n"
        "equal; keys and reserved bytes become zeros. Types, sizes, offsets, counts, times and byte order stay. The\n"
        "secret behind the pseudonyms is written nowhere, unless it comes from KEY, which must not be sent along.\n\n"
        "A broken record can't be redacted safely: status 1, and nothing is written to OUT.\n\n"
        "Example:\n  crrecord redact movie.do movie.seg -o case-17.records");
    verb->callback([options, &chosen] { chosen = [options](Output& out) { return Redact(*options, out); }; });
}

} // namespace crrecord::tool
