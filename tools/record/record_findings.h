// The findings of the library's validators, as text and as JSON.

#pragma once

#include "io/output.h"
#include "io/record_stream.h"

#include <string>
#include <vector>

#include <fmt/format.h>

namespace crrecord::tool {

// A copy of a finding, which the library passes to its callback only.
struct Finding {
    int code;
    int severity;
    std::uint64_t offset; // in the record
    std::uint64_t found;
    std::uint64_t expected;
    std::string field;
    std::string message;
};

char const* NameOfSeverity(int severity) noexcept;
Colour ColourOf(Finding const& finding) noexcept;

enum class Depth { Everything, FirstError };

// Validates a record, whose bytes are in the order in which they were read, and replaces `findings` by its findings.
// Of very many findings the first are kept, and the last one kept has the number of the others.
// Returns: true for a valid record.
bool Diagnose(Record const& record, Depth depth, std::vector<Finding>& findings);

// Returns: true for a valid record.
bool IsValid(Record const& record);

// Validates a record and reports its first error on standard error. Returns: true for a valid record.
bool CheckRecord(std::string_view file, Record const& record, std::vector<Finding>& findings);

// Returns: one line without its end: the place, the finding, and a remark about a record that is not complete.
std::string Describe(std::string_view file, Record const& record, Finding const& finding);

// The version of the JSON form, in every line. docs/json.md lists the changes allowed within one version.
inline constexpr unsigned int kJsonSchema = 1;

// Returns: the start of the JSON object of any line. The object is left open.
std::string JsonStart();

// Appends the first members of a record's JSON object, which is left open. `quotedFile` is from JsonName("file", ...);
// without it the members for the record's place are omitted.
void AppendJsonStart(fmt::memory_buffer& to, Record const& record);
void AppendJsonStart(fmt::memory_buffer& to, std::string_view quotedFile, Record const& record, bool valid);

// Appends the member "findings", after a comma.
void AppendJsonFindings(fmt::memory_buffer& to, std::vector<Finding> const& findings);

// Prints a whole line for bytes that are in no checked record.
void PrintJsonGap(Output& out, std::string_view quotedFile, Gap const& gap);

// Prints a line for skipped bytes and one for bytes that were not read, if there are any.
void PrintGaps(Output& out, GapSums const& gaps);

// Returns: a 64-bit number as a string, or null.
std::string JsonNumber(std::optional<std::uint64_t> const& number);

// Prints a whole line with the record's place and findings only.
void PrintJsonFindings(Output& out, std::string_view quotedFile, Record const& record, bool valid,
                       std::vector<Finding> const& findings);

} // namespace crrecord::tool
