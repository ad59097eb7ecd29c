// Compares the codes in docs/ with those of the library, and its C++ with the examples.

#include <crrecord/finding.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>

namespace {

std::string Text(std::filesystem::path const& path) {
    std::ifstream file(path);
    EXPECT_TRUE(file) << path;
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string Document(char const* name) {
    return Text(std::filesystem::path(CRRECORD_DOCS_DIR) / name);
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

} // namespace

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
