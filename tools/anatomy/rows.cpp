#include "anatomy/rows.h"

#include <crrecord/finding.h>

#include <algorithm>
#include <array>
#include <cstring>

#include <fmt/compile.h>

namespace crrecord::tool {

namespace {

constexpr char kMark[] = "!!";
constexpr int kOffsetWidth = 8; // at least
constexpr std::size_t kLineBytes = 16;
constexpr std::size_t kBytesWidth = 3 * kLineBytes - 1; // two digits each, blanks between them
// Bytes of a long row that JSON gets at once.
constexpr std::size_t kBlock = 64UL * 1024;

// The digits of each byte and a blank.
constexpr auto kDigits = [] {
    std::array<std::array<char, 3>, 256> table{};
    for (std::size_t i = 0; i < table.size(); ++i) {
        table[i] = {"0123456789abcdef"[i >> 4], "0123456789abcdef"[i & 15], ' '};
    }
    return table;
}();

void AppendLineBytes(fmt::memory_buffer& to, std::span<unsigned char const> bytes, std::size_t width) {
    std::size_t const start = to.size();
    AppendPadded(to, "", std::max(3 * bytes.size() - 1, width));
    char* at = to.data() + start;
    for (unsigned char const byte : bytes.first(bytes.size() - 1)) {
        std::memcpy(at, kDigits[byte].data(), 3);
        at += 3;
    }
    std::memcpy(at, kDigits[bytes.back()].data(), 2);
}

void AppendColumns(fmt::memory_buffer& to, Row const& row) {
    fmt::format_to(std::back_inserter(to), FMT_COMPILE("  {:<14}  {:<26}  {}"), row.section, row.field, row.value);
}

std::string_view WhatIs(Kind kind) {
    switch (kind) {
    case Kind::Segment: return "segment record";
    case Kind::DataObject: return "DO record";
    case Kind::Form: return "exchange form of a DO record";
    default: return "no record of a known kind";
    }
}

} // namespace

void TextRows::Begin(Record const& record, bool, std::vector<Finding> const& findings) {
    start_ = record.offset;
    findings_ = findings;
    out_.Print("# {}: {}", PlaceOf(file_, record), WhatIs(record.kind));
    if (record.kind == Kind::Segment || record.kind == Kind::DataObject) {
        out_.Print(" in {} order", NameOf(record.order));
    }
    if (record.size == 0) {
        out_.Write(" (the input is empty)");
    } else if (record.kind != Kind::Unknown) {
        out_.Print(", {}{}", Counted(record.size, "byte"),
                   record.endsTooEarly ? " (the input ends within this record)" : "");
    }
    out_.Write("\n");
}

void TextRows::Add(std::uint64_t start, Row const& row) {
    fmt::memory_buffer& to = out_.Buffer();
    if (row.bytes.empty()) {
        AppendPadded(to, "", kOffsetWidth + 2 + kBytesWidth);
        AppendColumns(to, row);
        to.push_back('\n');
    }
    std::uint64_t offset = start + row.offset;
    for (auto left = row.bytes; !left.empty(); left = left.subspan(std::min(kLineBytes, left.size()))) {
        auto const bytes = left.first(std::min(kLineBytes, left.size()));
        bool const isFirst = left.size() == row.bytes.size();
        std::size_t const lineStart = to.size();
        fmt::format_to(std::back_inserter(to), FMT_COMPILE("{:0{}x}  "), offset, kOffsetWidth);
        std::size_t const column = to.size() - lineStart;
        AppendLineBytes(to, bytes, isFirst ? kBytesWidth : 0);
        if (isFirst) {
            AppendColumns(to, row);
        }
        to.push_back('\n');
        MarkLine(offset, bytes.size(), column);
        offset += bytes.size();
        out_.FlushWhenFull();
    }
}

void TextRows::MarkLine(std::uint64_t offset, std::uint64_t size, std::size_t column) {
    while (!findings_.empty() && start_ + findings_.front().offset < offset + size) {
        std::uint64_t const byte = start_ + findings_.front().offset - offset;
        fmt::memory_buffer& to = out_.Buffer();
        AppendPadded(to, kMark, column + 3 * byte);
        to.append(std::string_view("^^"));
        AddFinding();
    }
}

void TextRows::AddFinding() {
    Finding const& finding = findings_.front();
    std::string const text = fmt::format("{} {} {} in {}: found {}, expected {}: {}", finding.code,
                                         CRFindingName(finding.code), NameOfSeverity(finding.severity), finding.field,
                                         finding.found, finding.expected, Printable(finding.message));
    out_.Write(" ");
    out_.PaintLine(text, ColourOf(finding));
    findings_ = findings_.subspan(1);
}

// The remaining findings are about missing bytes.
void TextRows::End(std::vector<Finding> const&) {
    while (!findings_.empty()) {
        out_.Write(kMark);
        AddFinding();
    }
}

void JsonRows::Begin(Record const& record, bool valid, std::vector<Finding> const&) {
    start_ = record.offset;
    size_ = 0;
    separator_ = "";
    AppendJsonStart(out_.Buffer(), quotedFile_, record, valid);
    out_.Write(",\"rows\":[");
}

void JsonRows::Add(std::uint64_t start, Row const& row) {
    fmt::memory_buffer& to = out_.Buffer();
    fmt::format_to(std::back_inserter(to),
                   FMT_COMPILE(R"({}{{"offset":{},"size":{},"section":"{}","field":"{}","value":"{}","bytes":")"),
                   separator_, Decimal{start - start_ + row.offset}, Decimal{row.bytes.size()}, row.section, row.field,
                   row.value);
    for (auto left = row.bytes; !left.empty(); left = left.subspan(std::min(kBlock, left.size()))) {
        AppendHex(to, left.first(std::min(kBlock, left.size())));
        out_.FlushWhenFull();
    }
    out_.Write("\"}");
    size_ += row.bytes.size();
    separator_ = ",";
}

void JsonRows::End(std::vector<Finding> const& findings) {
    out_.Write("]");
    AppendJsonFindings(out_.Buffer(), findings);
    out_.Print(",\"size\":{}}}\n", Decimal{size_});
}

} // namespace crrecord::tool
