// Rows as text, which ReadBack converts to the same bytes again, and as JSON.

#pragma once

#include "anatomy/walk.h"
#include "io/output.h"
#include "record/record_findings.h"

namespace crrecord::tool {

// A line of text has the offset in the input (hexadecimal), up to sixteen bytes, and, in the first line of a row, the
// section, the field and the value. Lines without bytes begin with '#', '!' or a blank. A line with a finding follows
// the line with the finding's byte and has a mark below that byte.
class TextRows {
public:
    TextRows(Output& out, std::string_view file) : out_(out), file_(Printable(file)) {}

    // `findings` are in the order of their offsets and must be valid until End.
    void Begin(Record const& record, bool valid, std::vector<Finding> const& findings);
    // The row's offset is relative to `start` in the input.
    void Add(std::uint64_t start, Row const& row);
    void End(std::vector<Finding> const& findings);

private:
    // Prints the findings about a line of bytes, which start at `column`.
    void MarkLine(std::uint64_t offset, std::uint64_t size, std::size_t column);
    void AddFinding();

    Output& out_;
    std::string file_;
    std::uint64_t start_ = 0; // of the record in its input
    std::span<Finding const> findings_;
};

// One JSON object for each record. Offsets are relative to the record, as in findings.
class JsonRows {
public:
    JsonRows(Output& out, std::string_view file) : out_(out), quotedFile_(JsonName("file", file)) {}

    void Begin(Record const& record, bool valid, std::vector<Finding> const& findings);
    void Add(std::uint64_t start, Row const& row);
    void End(std::vector<Finding> const& findings);

private:
    Output& out_;
    std::string quotedFile_;
    std::uint64_t start_ = 0;
    std::uint64_t size_ = 0;
    std::string_view separator_;
};

} // namespace crrecord::tool
