#include "record/record_findings.h"

#include "io/text.h"

#include <crrecord/DORecordHeader.h>
#include <crrecord/SOmarshall.h>
#include <crrecord/finding.h>

#include <fmt/compile.h>

namespace crrecord::tool {

namespace {

// A form of a gigabyte may have as many bad fingerprints as others have segments: what is kept of them is bounded.
constexpr std::uint64_t kMostFindings = 10'000;

struct Keeper {
    std::vector<Finding>& findings;
    std::uint64_t more = 0; // that were not kept
};

template <Depth depth>
bool Keep(cr_finding_t const* finding, void* context) {
    auto& keeper = *static_cast<Keeper*>(context);
    bool const isError = finding->severity == CR_FINDING_ERROR;
    if (keeper.findings.size() == kMostFindings) {
        ++keeper.more;
    } else if (depth == Depth::Everything || isError) {
        keeper.findings.push_back({finding->code, finding->severity, finding->offset, finding->found, finding->expected,
                                   finding->field, finding->message});
    }
    return depth == Depth::Everything || !isError;
}

cr_status_t DiagnoseBytes(Record const& record, cr_finding_callback_t keep, void* context) {
    bool const network = record.order == Order::Network;
    switch (record.kind) {
    case Kind::DataObject:
        return DORecordDiagnose(record.bytes, record.size, network ? CR_DO_NETWORK_ORDER : 0, keep, context);
    case Kind::Form:
        return DORecordSerializedDiagnose(record.bytes, record.size, record.form.dotype, record.form.fptype,
                                          record.form.checksum ? CR_DO_FORM_CHECKSUM : 0, keep, context);
    default: return SegmentRecordDiagnose(record.bytes, record.size, network ? CR_SO_NETWORK_ORDER : 0, keep, context);
    }
}

// Whether an input that isn't records begins as JSON does, or with a byte order mark, as some write in front of it.
bool LooksLikeJson(Record const& record) noexcept {
    std::string_view const text(reinterpret_cast<char const*>(record.bytes), record.size);
    std::size_t const start = text.find_first_not_of(" \t\r\n");
    return record.kind == Kind::Unknown && record.offset == 0 && start != text.npos &&
           (text[start] == '{' || text[start] == '[' || text.starts_with("\xef\xbb\xbf"));
}

char const* RemarkOn(Record const& record) noexcept {
    if (LooksLikeJson(record)) {
        return " (this looks like JSON: convert reads it, one record a line and nothing around them)";
    }
    if (record.endsTooEarly) {
        return record.size == 0 ? " (the input is empty)" : " (the input ends within this record)";
    }
    return record.kind == Kind::Unknown ? " (no record of a known kind: the rest of the input is not read)" : "";
}

void AppendJsonKind(fmt::memory_buffer& to, Record const& record) {
    std::string_view const order = record.kind == Kind::Unknown || record.kind == Kind::Form ? "null"
                                   : record.order == Order::Network                          ? "\"network\""
                                                                                             : "\"host\"";
    fmt::format_to(std::back_inserter(to), FMT_COMPILE(R"(,"kind":"{}","order":{})"), NameOf(record.kind), order);
}

} // namespace

char const* NameOfSeverity(int severity) noexcept {
    return severity == CR_FINDING_ERROR ? "error" : "note";
}

Colour ColourOf(Finding const& finding) noexcept {
    return finding.severity == CR_FINDING_ERROR ? Colour::Bad : Colour::Warning;
}

bool Diagnose(Record const& record, Depth depth, std::vector<Finding>& findings) {
    findings.clear();
    Keeper keeper{findings};
    // Of something unknown the first error says that; what its bytes would mean in a segment record is no news.
    bool const everything = depth == Depth::Everything && record.kind != Kind::Unknown;
    cr_status_t const status =
        DiagnoseBytes(record, everything ? Keep<Depth::Everything> : Keep<Depth::FirstError>, &keeper);
    if (keeper.more != 0) {
        findings.back().message += fmt::format(" (and {} more)", Counted(keeper.more, "finding"));
    }
    return status == CR_STATUS_OK;
}

std::string Describe(std::string_view file, Record const& record, Finding const& finding) {
    return fmt::format("{}: record {} at byte {}: {} {} in {} at byte {}: found {}, expected {}: {}{}", file,
                       record.number, record.offset, NameOfSeverity(finding.severity), CRFindingName(finding.code),
                       finding.field, record.offset + finding.offset, finding.found, finding.expected, finding.message,
                       RemarkOn(record));
}

std::string JsonStart() {
    return fmt::format(FMT_COMPILE(R"({{"schema":{})"), kJsonSchema);
}

void AppendJsonStart(fmt::memory_buffer& to, Record const& record) {
    to.append(JsonStart());
    AppendJsonKind(to, record);
}

void AppendJsonStart(fmt::memory_buffer& to, std::string_view quotedFile, Record const& record, bool valid) {
    fmt::format_to(std::back_inserter(to), FMT_COMPILE(R"({},"file":{},"record":{},"offset":"{}")"), JsonStart(),
                   quotedFile, record.number, record.offset);
    AppendJsonKind(to, record);
    fmt::format_to(std::back_inserter(to), FMT_COMPILE(R"(,"valid":{})"), valid);
}

void AppendJsonFindings(fmt::memory_buffer& to, std::vector<Finding> const& findings) {
    to.append(std::string_view(",\"findings\":["));
    char const* separator = "";
    for (Finding const& finding : findings) {
        fmt::format_to(
            std::back_inserter(to),
            FMT_COMPILE(
                R"({}{{"code":{},"name":"{}","severity":"{}","offset":"{}","found":"{}","expected":"{}","field":{},"message":{}}})"),
            separator, finding.code, CRFindingName(finding.code), NameOfSeverity(finding.severity), finding.offset,
            finding.found, finding.expected, JsonQuoted(finding.field), JsonQuoted(finding.message));
        separator = ",";
    }
    to.push_back(']');
}

void AppendJsonFindingsLine(fmt::memory_buffer& to, std::string_view quotedFile, Record const& record, bool valid,
                            std::vector<Finding> const& findings) {
    AppendJsonStart(to, quotedFile, record, valid);
    AppendJsonFindings(to, findings);
    to.append(std::string_view("}\n"));
}

} // namespace crrecord::tool
