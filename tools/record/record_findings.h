// What the library's validators say of a record, for people and for programs.

#pragma once

#include "io/record_stream.h"
#include "io/text.h"

#include <string>
#include <vector>

#include <fmt/format.h>

namespace crrecord::tool {

// A finding kept beyond its callback.
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

// Whether the record, whose bytes are still as they were found, may be used. `findings` gets what was found, and
// nothing else; of a great many findings the first, of which the last one says how many there are more.
bool Diagnose(Record const& record, Depth depth, std::vector<Finding>& findings);

// One line without its end: where, what, and why the rest of the input is not read where that is so.
std::string Describe(std::string_view file, Record const& record, Finding const& finding);

// Version of the JSON form, which every line says. docs/json.md says what may change within one.
inline constexpr unsigned int kJsonSchema = 1;

// How the JSON object of every line begins, whatever it is about. The object is left open.
std::string JsonStart();

// The members with which the JSON object of every record begins, the object left open. `quotedFile` is from
// JsonQuoted; without it nothing is said of where the record was found.
void AppendJsonStart(fmt::memory_buffer& to, Record const& record);
void AppendJsonStart(fmt::memory_buffer& to, std::string_view quotedFile, Record const& record, bool valid);

// The member "findings", with its comma.
void AppendJsonFindings(fmt::memory_buffer& to, std::vector<Finding> const& findings);

// A whole line that says nothing else of a record, such as of a bad one.
void AppendJsonFindingsLine(fmt::memory_buffer& to, std::string_view quotedFile, Record const& record, bool valid,
                            std::vector<Finding> const& findings);

} // namespace crrecord::tool
