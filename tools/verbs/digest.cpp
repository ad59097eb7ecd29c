// crrecord digest: one fingerprint for a whole object.

#include "record/do_record.h"
#include "record/record_findings.h"
#include <crrecord/do_types.h>
#include "verbs/verbs.h"

namespace crrecord::tool {

namespace {

struct DigestOptions {
    std::vector<std::string> files{"-"};
    FormOptions form;
    bool key = false;
    bool json = false;
};

struct ObjectDigest {
    std::string digest;
    std::optional<std::string> key;
};

// Equal keys mean equal content, equal digests do not: the digest covers neither the object's size nor, for a single
// segment, its offset. The number of segments separates the fingerprint of a single segment from a hash over many.
// Bloom records have no key: their digest covers containers and bytes, not the content.
// Users store keys: the form never changes.
std::optional<std::string> KeyOf(DORecord const& record, std::string const& digest) {
    if (IsBloom(record.GetDOType())) {
        return std::nullopt;
    }
    DOSegmentRange const segments = record.Segments();
    unsigned int const dotype = record.GetDOType();
    bool const hasOffset = DOTypeOf(dotype).offsetWidth != 0 && !segments.empty();
    unsigned long const offset = hasOffset ? segments[0].offset : 0;
    return fmt::format("{}-{}-{}-{}-{}-{}", digest, record.GetFPType(), dotype, record.GetSize(), segments.size(),
                       offset);
}

// No value for a segment record, and for DO type 0 with a number of segments other than one.
std::optional<ObjectDigest> DigestOf(std::string const& file, Record const& record) {
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
    return ObjectDigest{text, KeyOf(*opened, text)};
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
        std::optional<ObjectDigest> const object = valid ? DigestOf(stream.Name(), *record) : std::nullopt;
        if (options.json) {
            AppendJsonStart(out.Buffer(), quotedName, *record, valid);
            out.Print(R"(,"digest":{},"key":{})", object ? '"' + object->digest + '"' : "null",
                      object && object->key ? '"' + *object->key + '"' : "null");
            AppendJsonFindings(out.Buffer(), findings);
            out.Write("}\n");
        } else if (valid) {
            std::string const text = !object ? "-" : options.key ? object->key.value_or("-") : object->digest;
            out.Print("{}  {}: record {}\n", text, Printable(stream.Name()), record->number);
        }
    }
    return result;
}

} // namespace

void AddDigest(CLI::App& app, Action& chosen) {
    auto const options = std::make_shared<DigestOptions>();
    CLI::App* const verb = app.add_subcommand("digest", "Give the digest of each object");
    AddFiles(*verb, options->files);
    verb->add_flag("--key", options->key, "Print a key that identifies the content instead of the digest");
    verb->add_flag("--json", options->json, "One JSON object a line for each record");
    AddFormOptions(*verb, options->form);
    verb->footer(
        "Equal content cut alike has equal digests, whatever the byte order or form of the record, where validate\n"
        "has no notes on it. Segment records, and records of DO type 0 unless they have one segment, have none: -.\n\n"
        "Different content may have equal digests: the digest does not cover the object's size nor, for a single\n"
        "segment, its offset, so a file with a hole added at its start or end keeps its digest. To store objects by\n"
        "content, use --key. The key is\n"
        "  DIGEST-FPTYPE-DOTYPE-SIZE-SEGMENTS-OFFSET\n"
        "with the size in bytes, the number of segments and the first segment's offset (0 for DO types without\n"
        "offsets), in decimal. Bloom records have none: their digest does not identify the content.\n\n"
        "Example:\n  crrecord digest movie.do\n  crrecord digest --key movie.do");
    verb->callback([options, &chosen] {
        chosen = [options](Output& out) {
            return ForEachInput(options->files, options->form,
                                [&](RecordStream& stream) { return DigestInput(stream, *options, out); });
        };
    });
}

} // namespace crrecord::tool
