#include "json/name_index.h"

#include "io/failure.h"
#include "io/line_reader.h"
#include "record/record_findings.h"
#include "json/parser.h"

#include <fmt/format.h>

namespace crrecord::tool::json {

namespace {

constexpr std::size_t kLongestLine = 64UL * 1024; // a path has up to 4095 bytes, and JSON up to 6 for each

struct NameReader {
    Parser& parser;
    NamedRecord record{};
    bool hasBytes = false; // `name_hex` has the bytes of the name

    void ReadSchema(Value value, MemberFacts const&) { parser.Number(value, kJsonSchema, kJsonSchema); }
    void ReadOffset(Value value, MemberFacts const&) { record.offset = parser.Decimal(value); }
    void ReadBytes(Value value, MemberFacts const&) { record.bytes = parser.Decimal(value); }

    void ReadName(Value value, MemberFacts const&) {
        std::string_view const name = parser.String(value, "a string");
        if (!hasBytes) {
            record.name = name;
        }
    }

    void ReadNameBytes(Value value, MemberFacts const&) {
        std::string_view const digits = parser.String(value, "a string");
        record.name.assign(digits.size() / 2, '\0');
        parser.Hex(value, record.name.size(), reinterpret_cast<unsigned char*>(record.name.data()));
        hasBytes = true;
    }
};

constexpr std::array<Member<NameReader>, 5> kIndexMembers{{{{"schema"}, &NameReader::ReadSchema},
                                                           {{"offset"}, &NameReader::ReadOffset},
                                                           {{"bytes"}, &NameReader::ReadBytes},
                                                           {{"name"}, &NameReader::ReadName},
                                                           {{"name_hex", Need::Optional}, &NameReader::ReadNameBytes}}};

// `end` is the end of the record before. Throws: Error.
NamedRecord ReadLine(Parser& parser, std::string_view line, std::uint64_t end) {
    NameReader reader{parser};
    parser.Start(line, line.size());
    parser.ReadMembers(parser.Root(), kIndexMembers, reader);
    parser.End();
    NamedRecord& record = reader.record;
    if (record.offset < end) {
        Parser::FailMember(0, "offset", fmt::format("found {}, expected {} or more", record.offset, end));
    }
    if (record.bytes == 0 || record.bytes > std::numeric_limits<std::uint64_t>::max() - record.offset) {
        Parser::FailMember(0, "bytes", fmt::format("found {}, expected the size of a record", record.bytes));
    }
    if (record.name.empty() || record.name.find('\0') != std::string::npos) {
        Parser::FailMember(0, "name", "expected a name without NUL");
    }
    return std::move(record);
}

} // namespace

void WriteName(Output& out, NamedRecord const& record) {
    // Not Decimal: --numbers is for output that is not read again.
    out.Print(R"({},"offset":"{}","bytes":"{}","name":{}}})"
              "\n",
              JsonStart(), record.offset, record.bytes, JsonName("name", record.name));
}

std::vector<NamedRecord> ReadNames(std::string const& index) {
    Input input(index);
    LineReader lines(input, kLongestLine);
    Parser parser;
    std::vector<NamedRecord> records;
    std::uint64_t begin = 0; // of the line
    while (auto const line = lines.Next()) {
        try {
            if (line->size() > kLongestLine) {
                throw Error(kLongestLine, "", "expected the end of the line");
            }
            records.push_back(
                ReadLine(parser, *line, records.empty() ? 0 : records.back().offset + records.back().bytes));
        } catch (Error const& error) {
            throw InputFailure(fmt::format("{}: line {} at byte {}: {}{}{}", index, lines.Number(),
                                           begin + error.position, error.path, error.path.empty() ? "" : ": ",
                                           error.what()));
        }
        begin += line->size() + 1;
    }
    return records;
}

} // namespace crrecord::tool::json
