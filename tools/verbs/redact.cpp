// crrecord redact: records that are safe to send to others.

#include "record/parallel_records.h"
#include "redaction/redact_record.h"
#include "verbs/verbs.h"

namespace crrecord::tool {

namespace {

struct RedactOptions {
    std::vector<std::string> files;
    std::string out;
    std::string key;
    FormOptions form;
    unsigned int jobs = Processors();
    bool json = false;
};

struct Redacted {
    std::uint64_t records = 0;
    std::uint64_t bytes = 0;
    std::uint64_t bad = 0;
};

// The least size resists a search through all keys. The largest one rejects files named by mistake.
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
    return options.key.empty() ? Pseudonyms(Pseudonyms::RandomSecret()) : Pseudonyms(ReadKey(options));
}

struct RedactPart : RecordPart {
    RedactPart(Output::PartOf of, Pseudonyms const& original) : RecordPart(of), pseudonyms(original) {}

    Pseudonyms pseudonyms;
    Redacted tally;
};

// Ends at a bad record, or omits it with --scan.
ExitCode RedactInput(RecordStream& stream, RedactOptions const& options, Output& to, Pseudonyms const& pseudonyms,
                     Redacted& tally) {
    auto const work = [&](Record& record, RedactPart& part) {
        if (!part.Check(stream.Name(), record)) {
            ++part.tally.bad;
            return options.form.scan;
        }
        part.tally.bytes += WriteRedacted(part.out, stream.Name(), record, part.pseudonyms);
        ++part.tally.records;
        return true;
    };
    auto const use = [&tally](RedactPart& part) {
        Redacted const more = std::exchange(part.tally, {});
        tally.records += more.records;
        tally.bytes += more.bytes;
        tally.bad += more.bad;
    };
    auto const make = [&pseudonyms](Output::PartOf of) { return std::make_unique<RedactPart>(of, pseudonyms); };
    return ParallelRecords<RedactPart>(stream, options.jobs, to, {.make = make, .work = work, .use = use}).Run();
}

std::string ClosingLine(RedactOptions const& options, Redacted const& tally) {
    if (options.json) {
        return fmt::format(R"({},"out":{},"records":{},"bytes":{}{}}})", JsonStart(), JsonName("out", options.out),
                           Decimal{tally.records}, Decimal{tally.bytes}, OmittedMembers(options.form, tally.bad));
    }
    return fmt::format("{}: {} redacted, {}{}", Printable(options.out), Counted(tally.records, "record"),
                       Counted(tally.bytes, "byte"), OmittedText(options.form, tally.bad));
}

ExitCode Redact(RedactOptions const& options, Output& out) {
    RefuseToReplace(options.files, options.out, "redacted records");
    RefuseToReplace({options.key}, options.out, "redacted records");
    if (options.key == "-" && std::find(options.files.begin(), options.files.end(), "-") != options.files.end()) {
        throw Failure("standard input can be either the records or the key");
    }
    Pseudonyms const pseudonyms = MakePseudonyms(options);
    OutputFile to(options.out, options.files);
    Redacted tally;
    ExitCode const result = ForEachInput(options.files, options.form, nullptr, [&](RecordStream& stream) {
        return RedactInput(stream, options, to.Text(), pseudonyms, tally);
    });
    // A broken record cannot be redacted safely. Without --scan the output has all records or none.
    if (IsWorthWriting(options.form, result, tally.records)) {
        to.Commit();
        PrintClosing(out, options.out, options.json, ClosingLine(options, tally));
    } else {
        to.Abandon();
    }
    return result;
}

} // namespace

void AddRedact(CLI::App& app, Action& chosen) {
    auto const [verb, options] = AddVerb(app, chosen, "redact", "Replace identifying values by pseudonyms", Redact);
    AddFiles(verb, options.files)->required();
    AddOut(verb, options.out);
    AddFile(verb, "--key", options.key,
            "A file of 16 to 4096 random bytes: the same key gives the same pseudonyms, in any run")
        ->type_name("KEY");
    AddFormOptions(verb, options.form);
    AddScan(verb, options.form);
    AddJobs(verb, options.jobs);
    verb.add_flag("--json", options.json, "The closing line as a JSON object");
    verb.footer(
        "Fingerprints, containers, paths, references and checksums become pseudonyms, equal for equal values; keys "
        "and\n"
        "reserved bytes become zeros. Types, sizes, offsets, counts, times and byte order are kept. The secret of the\n"
        "pseudonyms is random and not stored, unless it is in KEY. Do not send KEY along.\n\n"
        "A broken record cannot be redacted safely: status 1, and OUT is not written. With --scan OUT has the valid "
        "records.\n\n"
        "Example:\n  crrecord redact movie.do movie.seg -o case-17.records");
}

} // namespace crrecord::tool
