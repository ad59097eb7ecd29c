// crrecord digest: one fingerprint for a whole object.

#include "record/do_record.h"
#include "record/record_findings.h"
#include "verbs/verbs.h"

namespace crrecord::tool {

namespace {

struct DigestOptions {
    std::vector<std::string> files{"-"};
    FormOptions form;
    bool json = false;
};

// None for a segment record, and for DO type 0 with other than one segment.
std::optional<std::string> DigestOf(std::string const& file, Record const& record) {
    if (record.kind == Kind::Segment) {
        return std::nullopt;
    }
    std::unique_ptr<DORecord> const opened = OpenDORecord(file, record);
    crt_digest_t* digest = opened->GetDigest();
    if (!digest) {
        return std::nullopt;
    }
    std::string const text = TextOf(digest->digest, opened->GetFPType());
    CRTDigestDelete(&digest);
    return text;
}

ExitCode DigestInput(RecordStream& stream, DigestOptions const& options, Output& out) {
    ExitCode result = ExitCode::AllWell;
    std::string const quotedName = JsonQuoted(stream.Name());
    std::vector<Finding> findings;
    while (Record const* const record = stream.Next()) {
        bool const valid = Diagnose(*record, Depth::FirstError, findings);
        if (!valid) {
            Complain(Describe(stream.Name(), *record, findings.front()));
            result = ExitCode::BadRecord;
        }
        std::optional<std::string> const digest = valid ? DigestOf(stream.Name(), *record) : std::nullopt;
        if (options.json) {
            AppendJsonStart(out.Buffer(), quotedName, *record, valid);
            out.Print(R"(,"digest":{})", digest ? '"' + *digest + '"' : "null");
            AppendJsonFindings(out.Buffer(), findings);
            out.Write("}\n");
        } else if (valid) {
            out.Print("{}  {}: record {}\n", digest.value_or("-"), Printable(stream.Name()), record->number);
        }
    }
    return result;
}

} // namespace

void AddDigest(CLI::App& app, Action& chosen) {
    auto const options = std::make_shared<DigestOptions>();
    CLI::App* const verb = app.add_subcommand("digest", "Give the digest of each object");
    AddFiles(*verb, options->files);
    verb->add_flag("--json", options->json, "One JSON object a line for each record");
    AddFormOptions(*verb, options->form);
    verb->footer(
        "Equal content cut alike has equal digests, whatever the byte order or form of the record, where validate\n"
        "has no notes on it. Segment records, and records of DO type 0 with more than one segment, have none: -.\n\n"
        "Example:\n  crrecord digest movie.do");
    verb->callback([options, &chosen] {
        chosen = [options](Output& out) {
            return ForEachInput(options->files, options->form,
                                [&](RecordStream& stream) { return DigestInput(stream, *options, out); });
        };
    });
}

} // namespace crrecord::tool
