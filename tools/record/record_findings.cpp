#include "record/record_findings.h"

#include "io/failure.h"
#include "io/record_names.h"

#include <crrecord/DORecordHeader.h>
#include <crrecord/SOmarshall.h>
#include <crrecord/finding.h>

#include <fmt/compile.h>

namespace crrecord::tool {

namespace {

// A form of a gigabyte may have millions of bad fingerprints, so the number of findings kept is bounded.
constexpr std::uint64_t kMostFindings = 10'000;

struct Keeper {
    std::vector<Finding>& findings;
    Depth depth;
    std::uint64_t more = 0; // findings that were not kept
};

bool Keep(cr_finding_t const* finding, void* context) {
    auto& [findings, depth, more] = *static_cast<Keeper*>(context);
    if (findings.size() == kMostFindings) {
        ++more;
    } else {
        findings.push_back({finding->code, finding->severity, finding->offset, finding->found, finding->expected,
                            finding->field, finding->message});
    }
    return depth == Depth::Everything;
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

// Returns: true if an input of no records starts like JSON, or with the byte order mark that some programs write first.
bool LooksLikeJson(Record const& record) noexcept {
    std::string_view const text(reinterpret_cast<char const*>(record.bytes), record.size);
    std::size_t const start = text.find_first_not_of(" \t\r\n");
    return record.kind == Kind::Unknown && record.offset == 0 && start != text.npos &&
           (text[start] == '{' || text[start] == '[' || text.starts_with("\xef\xbb\xbf"));
}

char const* RemarkOn(Record const& record) noexcept {
    if (LooksLikeJson(record)) {
        return " (this looks like JSON: convert reads it, with one record on each line and no other text)";
    }
    if (record.endsTooEarly) {
        return record.size == 0 ? " (the input is empty)" : " (the input ends within this record)";
    }
    return record.kind == Kind::Unknown ? " (no record of a known kind)"
           : record.open                ? " (its end is in doubt: only these bytes are checked)"
                                        : "";
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
    // Without a callback the library skips the checks for notes.
    if (depth == Depth::FirstError && IsValid(record)) {
        return true;
    }
    // The first error of an unknown record reports its type. Further errors would be those of a segment record.
    Keeper keeper{findings, record.kind == Kind::Unknown ? Depth::FirstError : depth};
    cr_status_t const status = DiagnoseBytes(record, Keep, &keeper);
    if (keeper.more != 0) {
        findings.back().message += fmt::format(" (and {} more)", Counted(keeper.more, "finding"));
    }
    return status == CR_STATUS_OK;
}

bool IsValid(Record const& record) {
    return DiagnoseBytes(record, nullptr, nullptr) == CR_STATUS_OK;
}

bool CheckRecord(std::string_view file, Record const& record, std::vector<Finding>& findings) {
    bool const valid = Diagnose(record, Depth::FirstError, findings);
    if (!valid) {
        Complain(Describe(file, record, findings.front()));
    }
    return valid;
}

std::string Describe(std::string_view file, Record const& record, Finding const& finding) {
    return fmt::format("{}: {} {} in {} at byte {}: found {}, expected {}: {}{}", PlaceOf(file, record),
                       NameOfSeverity(finding.severity), CRFindingName(finding.code), finding.field,
                       record.offset + finding.offset, finding.found, finding.expected, finding.message,
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
    fmt::format_to(std::back_inserter(to), FMT_COMPILE(R"({},"file":{},"record":{},"offset":{}{})"), JsonStart(),
                   quotedFile, record.number, Decimal{record.offset}, JsonNameOf(record.offset));
    AppendJsonKind(to, record);
    fmt::format_to(std::back_inserter(to), FMT_COMPILE(R"(,"valid":{})"), valid);
}

void PrintJsonGap(Output& out, std::string_view quotedFile, Gap const& gap) {
    out.Print(R"({},"file":{},"offset":{},"{}":{}}})"
              "\n",
              JsonStart(), quotedFile, Decimal{gap.offset}, gap.isRest ? "unread_bytes" : "skipped_bytes",
              JsonNumber(gap.size));
}

void PrintGaps(Output& out, GapSums const& gaps) {
    if (gaps.skipped != 0) {
        out.Print("skipped: {}\n", WithUnit(gaps.skipped));
    }
    if (gaps.unread != 0U) {
        out.Print("not read: {}\n", gaps.unread ? WithUnit(*gaps.unread) : "the rest of an input");
    }
}

std::string JsonNumber(std::optional<std::uint64_t> const& number) {
    return number ? fmt::format("{}", Decimal{*number}) : "null";
}

void AppendJsonFindings(fmt::memory_buffer& to, std::vector<Finding> const& findings) {
    to.append(std::string_view(",\"findings\":["));
    char const* separator = "";
    for (Finding const& finding : findings) {
        fmt::format_to(
            std::back_inserter(to),
            FMT_COMPILE(
                R"({}{{"code":{},"name":"{}","severity":"{}","offset":{},"found":{},"expected":{},"field":{},"message":{}}})"),
            separator, finding.code, CRFindingName(finding.code), NameOfSeverity(finding.severity),
            Decimal{finding.offset}, Decimal{finding.found}, Decimal{finding.expected}, JsonQuoted(finding.field),
            JsonQuoted(finding.message));
        separator = ",";
    }
    to.push_back(']');
}

void PrintJsonFindings(Output& out, std::string_view quotedFile, Record const& record, bool valid,
                       std::vector<Finding> const& findings) {
    AppendJsonStart(out.Buffer(), quotedFile, record, valid);
    AppendJsonFindings(out.Buffer(), findings);
    out.Write("}\n");
}

} // namespace crrecord::tool
