// crrecord digest: one fingerprint of a whole object.

#include "io/record_names.h"
#include "record/do_record.h"
#include "record/parallel_records.h"
#include "verbs/verbs.h"

#include <crrecord/do_types.h>

namespace crrecord::tool {

namespace {

struct DigestOptions {
    std::vector<std::string> files{"-"};
    FormOptions form;
    unsigned int jobs = Processors();
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
// Users store keys, so their form never changes.
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

// Returns: std::nullopt for a segment record, and for DO type 0 unless the object has one segment.
std::optional<ObjectDigest> DigestOf(std::string const& file, Record const& record) {
    if (record.kind == Kind::Segment) {
        return std::nullopt;
    }
    std::unique_ptr<DORecord> const opened = OpenWithoutReferences(file, record);
    crt_digest_t* digest = opened->GetDigest();
    if (!digest) {
        return std::nullopt;
    }
    std::string const text = TextOf(digest->digest, opened->GetFPType());
    CRTDigestDelete(&digest);
    return ObjectDigest{text, KeyOf(*opened, text)};
}

ExitCode DigestInput(RecordStream& stream, DigestOptions const& options, Output& out) {
    std::string const name = options.json ? JsonName("file", stream.Name()) : Printable(stream.Name());
    return WorkOnRecords(stream, options.jobs, out, [&](Record& record, RecordPart& part) {
        bool const valid = part.Check(stream.Name(), record);
        std::optional<ObjectDigest> const object = valid ? DigestOf(stream.Name(), record) : std::nullopt;
        if (options.json) {
            AppendJsonStart(part.out.Buffer(), name, record, valid);
            part.out.Print(R"(,"digest":{},"key":{})", object ? '"' + object->digest + '"' : "null",
                           object && object->key ? '"' + *object->key + '"' : "null");
            AppendJsonFindings(part.out.Buffer(), part.findings);
            part.out.Write("}\n");
        } else if (valid) {
            std::string const text = !object ? "-" : options.key ? object->key.value_or("-") : object->digest;
            part.out.Print("{}  {}: {}\n", text, name, LabelOf(record.number, record.offset));
        }
        return true;
    });
}

ExitCode Digest(DigestOptions const& options, Output& out) {
    return ForEachInput(options.files, options.form, options.json ? &out : nullptr,
                        [&](RecordStream& stream) { return DigestInput(stream, options, out); });
}

} // namespace

void AddDigest(CLI::App& app, Action& chosen) {
    auto const [verb, options] = AddVerb(app, chosen, "digest", "Print the digest of each object", Digest);
    AddFiles(verb, options.files);
    verb.add_flag("--key", options.key, "Print a key that identifies the content instead of the digest");
    verb.add_flag("--json", options.json, "One JSON object on a line for each record");
    AddFormOptions(verb, options.form);
    AddScan(verb, options.form);
    AddJobs(verb, options.jobs);
    verb.footer(
        "Equal content in equal segments has equal digests, for any byte order or form of a record without notes from\n"
        "validate. Segment records, and records of DO type 0 with a number of segments other than one, have no digest: "
        "-.\n\n"
        "Different content may have equal digests: the digest covers neither the object's size nor the offset of a "
        "single\n"
        "segment. To store objects by content, use --key. The key is\n"
        "  DIGEST-FPTYPE-DOTYPE-SIZE-SEGMENTS-OFFSET\n"
        "with the size in bytes, the number of segments and the first segment's offset (0 for DO types without "
        "offsets),\n"
        "in decimal. Bloom records have no key: their digest does not identify the content.\n\n"
        "Example:\n  crrecord digest movie.do\n  crrecord digest --key movie.do");
}

} // namespace crrecord::tool
