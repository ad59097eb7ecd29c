// Any bytes as a file of records. The annotated text converts back to the bytes. Valid records convert to JSON and back
// byte for byte. Redacted records are canonical.

#include "tool_records.h"

#include "anatomy/read_back.h"
#include "anatomy/rows.h"
#include "redaction/redact_record.h"

namespace {

using namespace fuzz;
using crrecord::Order;

void ReadBackFrom(Block const& text, Bytes bytes) {
    static NamedBytes const file;
    Input input(file.Holding(text.data(), text.size()));
    OutputFile to("/dev/null", {});
    try {
        Must(ReadBack(input, to) == bytes.size(), "size that was read back");
    } catch (BadText const& bad) {
        Must(bytes.empty(), bad.what()); // the text of no bytes is rejected
    }
    Must(std::equal(bytes.begin(), bytes.end(), to.Text().Buffer().begin(), to.Text().Buffer().end(),
                    [](unsigned char a, char b) { return a == static_cast<unsigned char>(b); }),
         "bytes that were read back");
}

void ReadAgain(OwnRecord own) {
    static json::Reader reader;
    Block const given = own.bytes;
    Order const foundIn = own.record.order;
    own.Convert(Order::Host);
    Block const line = JsonOf(own.record, foundIn);
    Record const read = reader.Read(TextOf(line, line.size()));
    OwnRecord again(read);
    Must(reader.FoundIn() == foundIn && read.kind == own.record.kind, "kind and order of the line");
    again.Convert(foundIn);
    Must(again.bytes == given, "a valid record comes back from JSON byte for byte");
}

void RedactOne(OwnRecord own) {
    static Pseudonyms pseudonyms(Block(16, 7));
    Output to(-1, "redacted");
    Order const order = own.record.kind == Kind::Form ? Order::Network : own.record.order;
    WriteRedacted(to, "redacted", own.record, pseudonyms);
    Record facts = own.record;
    facts.order = order;
    facts.kind = facts.kind == Kind::Form ? Kind::DataObject : facts.kind;
    OwnRecord const redacted(facts, Written(to));
    std::vector<Finding> findings;
    Must(Diagnose(redacted.record, Depth::Everything, findings), "a redacted record is valid");
    for (Finding const& finding : findings) {
        // Redaction keeps flags and reserved containers.
        Must(finding.code == CR_FINDING_SO_FLAGS || finding.code == CR_FINDING_SO_DCID ||
                 finding.code == CR_FINDING_DO_DCID,
             finding.message.c_str());
    }
}

void UseRecords(Bytes bytes, std::optional<FormFacts> const& form) {
    static NamedBytes const file;
    RecordStream stream(file.Holding(bytes.data(), bytes.size()), form);
    Output text(-1, "text"), lines(-1, "lines");
    TextRows rows(text, "any");
    JsonRows jsonRows(lines, "any");
    std::vector<Finding> findings;
    while (Record* const record = stream.Next()) {
        bool const valid = Diagnose(*record, Depth::Everything, findings);
        std::stable_sort(findings.begin(), findings.end(),
                         [](Finding const& a, Finding const& b) { return a.offset < b.offset; });
        rows.Begin(*record, valid, findings);
        jsonRows.Begin(*record, valid, findings);
        do {
            Walk(*record, [&](Row const& row) {
                rows.Add(record->offset, row);
                jsonRows.Add(record->offset, row);
            });
        } while (stream.NextBlock());
        rows.End(findings);
        jsonRows.End(findings);
        if (valid) {
            if (record->kind != Kind::Form) {
                ReadAgain(OwnRecord(*record));
            }
            RedactOne(OwnRecord(*record));
        }
    }
    ReadBackFrom(Written(text), bytes);
}

} // namespace

FUZZ_TARGET(tool, bytes) {
    if (bytes.size() > 4096) {
        return; // keeps the text within the buffer of Output
    }
    UseRecords(bytes, std::nullopt);
    unsigned char const choice = bytes.empty() ? 0 : bytes.back();
    for (unsigned char types = 0; types < 24; ++types) {
        FormFacts const facts{static_cast<unsigned char>(types / 4), static_cast<unsigned char>(types % 4), false};
        if (types == choice ||
            DORecordSerializedValidate(bytes.data(), bytes.size(), facts.dotype, facts.fptype, 0) == CR_STATUS_OK) {
            UseRecords(bytes, facts);
        }
    }
}
