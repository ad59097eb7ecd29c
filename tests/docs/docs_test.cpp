// Compares the library with the bytes and codes in docs/, which were written by hand.

#include "support/segment_bytes.h"

#include <crrecord/DORecord.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

namespace {

std::string Text(std::filesystem::path const& path) {
    std::ifstream file(path);
    EXPECT_TRUE(file) << path;
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string Document(char const* name) {
    return Text(std::filesystem::path(CRRECORD_DOCS_DIR) / name);
}

std::string Block(std::string const& title) {
    std::string const document = Document("format.md"), from = "\n```" + title + "\n";
    std::size_t const start = document.find(from);
    EXPECT_NE(start, std::string::npos) << "docs/format.md has no " << title;
    return start == std::string::npos
               ? ""
               : document.substr(start + from.size(), document.find("```", start + from.size()) - start - from.size());
}

// Lines of an offset and up to 16 bytes; a semicolon begins a remark.
Bytes HexBlock(std::string const& title) {
    std::string digits;
    std::istringstream lines(Block("hex " + title));
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

// A buffer in the host order of this machine.
Bytes HostBlock(std::string const& title) {
    return HexBlock(title + (kBig ? " network" : " host"));
}

// "CODE NAME" for each match of a pattern, whose groups are the two.
std::vector<std::string> CodesIn(std::string const& document, char const* pattern) {
    std::vector<std::string> codes;
    std::regex const regex(pattern);
    for (std::sregex_iterator match(document.begin(), document.end(), regex), end; match != end; ++match) {
        codes.push_back(match->str(1) + ' ' + match->str(2));
    }
    return codes;
}

bool Unexpected(cr_finding_t const* finding, void*) {
    ADD_FAILURE() << finding->message;
    return true;
}

} // namespace

TEST(FormatDocument, SegmentRecordExampleMatchesTheLibrary) {
    Bytes record = HostBlock("segment");
    EXPECT_EQ(SegmentRecordDiagnose(record.data(), record.size(), 0, Unexpected, nullptr), CR_STATUS_OK);

    std::ostringstream text;
    SegmentRecordToStream(text, *RecordOf(record), false);
    EXPECT_EQ(text.str() + '\n', Block("text segment"));

    void* serialized = nullptr;
    unsigned long length = 0;
    ASSERT_EQ(SegmentRecordSerialize(RecordOf(record), &serialized, &length), CR_STATUS_OK);
    auto const* const bytes = static_cast<unsigned char*>(serialized);
    EXPECT_EQ(Bytes(bytes, bytes + length), HexBlock("segment serialized"));
    std::free(serialized);

    SegmentRecordHton(RecordOf(record), RecordOf(record), 0);
    EXPECT_EQ(record, HexBlock("segment network"));
    SegmentRecordNtoh(RecordOf(record), RecordOf(record), 0);
    EXPECT_EQ(record, HostBlock("segment"));
}

TEST(FormatDocument, DORecordExampleMatchesTheLibrary) {
    if (kBig) {
        GTEST_SKIP() << "the example is from a little-endian machine";
    }
    Bytes const host = HostBlock("object");
    EXPECT_EQ(DORecordDiagnose(host.data(), host.size(), 0, Unexpected, nullptr), CR_STATUS_OK);
    auto const record = DORecord::FromBuffer(host.data(), host.size());

    std::ostringstream text;
    record->ToStream(text, false);
    EXPECT_EQ(text.str() + '\n', Block("text object"));

    void* form = nullptr;
    unsigned long length = 0;
    ASSERT_EQ(record->Serialize(&form, &length, false), CR_STATUS_OK);
    auto const* bytes = static_cast<unsigned char const*>(form);
    EXPECT_EQ(Bytes(bytes, bytes + length), HexBlock("object exchange"));
    DORecord::SerializedDORecordFree(&form);

    record->HostToNetwork(0);
    bytes = reinterpret_cast<unsigned char const*>(record->GetHeader());
    EXPECT_EQ(Bytes(bytes, bytes + record->GetHeaderSize()), HexBlock("object network"));
}

TEST(FindingsDocument, HasRowAndSectionForEveryCode) {
    std::vector<std::string> expected;
    for (int code = CR_FINDING_ERROR + 1; code < 1000; ++code) { // those below are severities
        std::string const name = CRFindingName(code);
        if (name != "unknown") {
            expected.push_back(std::to_string(code) + ' ' + name);
        }
    }
    std::string const document = Document("findings.md");
    EXPECT_EQ(CodesIn(document, R"(\n\| ([0-9]+) \| \[`([a-z-]+)`\]\(#\1-\2\) \| )"), expected);
    EXPECT_EQ(CodesIn(document, R"(\n## ([0-9]+) ([a-z-]+)\n\n)"), expected);
    for (std::string const& linked : CodesIn(document, R"(\]\(#([0-9]+)-([a-z-]+)\))")) {
        EXPECT_NE(std::find(expected.begin(), expected.end(), linked), expected.end()) << linked;
    }
}

TEST(Documents, ShowOnlyCppFromTheExamples) {
    std::string examples;
    for (auto const& entry : std::filesystem::directory_iterator(CRRECORD_EXAMPLES_DIR)) {
        examples += Text(entry.path());
    }
    int blocks = 0;
    for (auto const& entry : std::filesystem::directory_iterator(CRRECORD_DOCS_DIR)) {
        std::string const document = entry.path().extension() == ".md" ? Text(entry.path()) : "";
        std::regex const block("\n```cpp\n([^`]*)```\n");
        for (std::sregex_iterator found(document.begin(), document.end(), block), end; found != end; ++found) {
            EXPECT_NE(examples.find(found->str(1)), std::string::npos) << entry.path() << ":\n" << found->str(1);
            ++blocks;
        }
    }
    EXPECT_GT(blocks, 0);
}
