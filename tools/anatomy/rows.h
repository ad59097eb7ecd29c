// Rows as text, which ReadBack turns into the same bytes again, and as JSON.

#pragma once

#include "anatomy/walk.h"
#include "io/output.h"
#include "record/record_findings.h"

namespace crrecord::tool {

// A line of text has the offset in the input (hexadecimal), up to sixteen bytes, and, in the first one of a row, the
// section, the field and the value. Lines without bytes begin with '#', '!' or a blank. Behind each line with a byte
// that a finding is about follows one with a mark below the byte, and the finding.
class TextRows {
public:
    TextRows(Output& out, std::string_view file) : out_(out), file_(Printable(file)) {}

    // `findings` are in the order of their offsets and last until the record ends.
    void Begin(Record const& record, bool valid, std::vector<Finding> const& findings);
    // `start` is the offset in the input of what the row's offset counts from.
    void Add(std::uint64_t start, Row const& row);
    void End(std::vector<Finding> const& findings);

private:
    // Behind a line of bytes, which begin at a column of it.
    void MarkLine(std::uint64_t offset, std::uint64_t size, std::size_t column);
    void AddFinding();

    Output& out_;
    std::string file_;
    std::uint64_t start_ = 0; // of the record in its input
    std::span<Finding const> findings_;
};

// The same as a JSON object for each record; offsets are in the record, as those of findings are.
class JsonRows {
public:
    JsonRows(Output& out, std::string_view file) : out_(out), quotedFile_(JsonQuoted(file)) {}

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
