// What docs/ says of bytes and codes is what the library does. The documents are the expectation, written by hand.

#include "SOmarshall/layout.h"

#include "support/segment_bytes.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>

namespace {

std::string Document(char const* name) {
    std::ifstream file(std::string(CRRECORD_DOCS_DIR "/") + name);
    EXPECT_TRUE(file) << name;
    return {std::istreambuf_iterator<char>(file), {}};
}

// The lines between ```<title> and ```.
std::string Block(std::string const& document, std::string const& title) {
    std::string const start = "\n```" + title + "\n";
    std::size_t const from = document.find(start);
    if (from == std::string::npos) {
        ADD_FAILURE() << "no block " << title;
        return {};
    }
    std::size_t const text = from + start.size();
    return document.substr(text, document.find("```", text) - text);
}

// Lines of an offset and up to 16 bytes; a semicolon begins a remark.
Bytes HexBlock(std::string const& document, std::string const& title) {
    std::string digits;
    std::istringstream lines(Block(document, title));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line.substr(0, line.find(';')));
        std::string word;
        words >> word;
        EXPECT_EQ(std::stoul(word, nullptr, 16), digits.size() / 2) << title << ": " << line;
        while (words >> word) {
            digits += word;
        }
    }
    return FromHex(digits);
}

using Rows = std::vector<std::string>;

// The first cells of each table row that matches `pattern`, as far as its group goes.
Rows RowsOf(std::string const& document, char const* pattern) {
    std::regex const row(pattern);
    return {std::sregex_token_iterator(document.begin(), document.end(), row, 1), {}};
}

} // namespace

TEST(FormatDocument, FieldsAreTheLayout) {
    using namespace crrecord::segment;
    Rows layout;
    for (Field const& field : kFields) {
        char const* const order = field.handling == Handling::Left   ? "left"
                                  : field.handling == Handling::Kept ? "kept"
                                                                     : "turned";
        char row[80];
        std::snprintf(row, sizeof row, "0x%02x | %u | %s | %s", unsigned{field.offset}, unsigned{field.width},
                      field.name, order);
        layout.emplace_back(row);
    }
    EXPECT_EQ(RowsOf(Document("format.md"), R"(\n\| (0x[0-9a-f]{2} \| [0-9]+ \| \w+ \| \w+) \|)"), layout);
}

TEST(FormatDocument, ExampleIsWhatTheLibraryMakes) {
    std::string const document = Document("format.md");
    Bytes const network = HexBlock(document, "hex network");
    Bytes const host = std::endian::native == std::endian::little ? HexBlock(document, "hex host") : network;
    auto const size = static_cast<unsigned>(host.size());
    Bytes record = host;
    EXPECT_EQ(SegmentRecordDiagnose(
                  record.data(), size, 0,
                  [](cr_finding_t const* finding, void*) {
                      ADD_FAILURE() << finding->message;
                      return true;
                  },
                  nullptr),
              CR_STATUS_OK);

    std::ostringstream text;
    SegmentRecordToStream(text, *RecordOf(record), false);
    EXPECT_EQ(text.str() + '\n', Block(document, "text form"));

    void* serialized = nullptr;
    unsigned long length = 0;
    ASSERT_EQ(SegmentRecordSerialize(RecordOf(record), &serialized, &length), CR_STATUS_OK);
    auto const* const bytes = static_cast<unsigned char*>(serialized);
    EXPECT_EQ(Bytes(bytes, bytes + length), HexBlock(document, "hex serialized"));
    std::free(serialized);

    SegmentRecordHton(RecordOf(record), RecordOf(record), 0);
    EXPECT_EQ(record, network);
    SegmentRecordNtoh(RecordOf(record), RecordOf(record), 0);
    EXPECT_EQ(record, host);
}

TEST(FindingsDocument, NamesEveryCode) {
    Rows codes;
    for (int code = CR_FINDING_ERROR + 1; code < 1000; ++code) { // those below are severities
        std::string const name = CRFindingName(code);
        if (name != "unknown") {
            codes.push_back(std::to_string(code) + " | `" + name + '`');
        }
    }
    EXPECT_EQ(RowsOf(Document("findings.md"), R"(\n\| ([0-9]+ \| `[a-z-]+`) \|)"), codes);
}
