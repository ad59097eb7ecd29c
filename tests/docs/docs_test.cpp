// What docs/ says of bytes and codes is what the library does. The documents are the expectation, written by hand.

#include "SOmarshall/layout.h"

#include "support/segment_bytes.h"

#include <crrecord/DORecord.h>

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

// What stands between two texts of docs/format.md.
std::string Format(std::string const& from, char const* to) {
    std::string const document = Document("format.md");
    std::size_t const start = document.find(from);
    std::size_t const end = start == std::string::npos ? start : document.find(to, start + from.size());
    if (end == std::string::npos) {
        ADD_FAILURE() << "docs/format.md has no " << from << " that ends at " << to;
        return {};
    }
    return document.substr(start + from.size(), end - start - from.size());
}

std::string Block(std::string const& title) {
    return Format("\n```" + title + "\n", "```");
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

// What stands in a buffer in host order on this machine.
Bytes HostBlock(std::string const& title) {
    return HexBlock(title + (std::endian::native == std::endian::little ? " host" : " network"));
}

using Rows = std::vector<std::string>;

// The first cells of each table row that matches `pattern`, as far as its group goes.
Rows RowsOf(std::string const& text, char const* pattern) {
    std::regex const row(pattern);
    return {std::sregex_token_iterator(text.begin(), text.end(), row, 1), {}};
}

Rows FieldRows(char const* heading) {
    return RowsOf(Format(heading, "\n#"), R"(\n\| (0x[0-9a-f]{2} \| [0-9]+ \| \w+ \| \w+) \|)");
}

std::string FieldRow(std::size_t offset, std::size_t width, char const* name, char const* order) {
    char row[80];
    std::snprintf(row, sizeof row, "0x%02zx | %zu | %s | %s", offset, width, name, order);
    return row;
}

// Sets one byte of an empty record and looks whether a conversion moves it.
char const* HandlingInDORecord(std::size_t offset) {
    Bytes record(512);
    record[offset] = 1;
    DORecordHeaderHton(reinterpret_cast<DORecordHeader*>(record.data()));
    return record[offset] == 1 ? "kept" : "turned";
}

bool Unexpected(cr_finding_t const* finding, void*) {
    ADD_FAILURE() << finding->message;
    return true;
}

} // namespace

TEST(FormatDocument, FieldsOfASegmentRecord) {
    using namespace crrecord::segment;
    Rows rows;
    for (Field const& field : kFields) {
        rows.push_back(FieldRow(field.offset, field.width, field.name,
                                field.handling == Handling::Left   ? "left"
                                : field.handling == Handling::Kept ? "kept"
                                                                   : "turned"));
    }
    EXPECT_EQ(FieldRows("\n## The segment record\n"), rows);
}

TEST(FormatDocument, FieldsOfADORecord) {
    if (std::endian::native == std::endian::big) {
        GTEST_SKIP() << "nothing turns here";
    }
    Rows rows;
#define FIELD(member)                                                                                                  \
    rows.push_back(FieldRow(offsetof(DORecordHeader, member), sizeof(DORecordHeader::member), #member,                 \
                            HandlingInDORecord(offsetof(DORecordHeader, member))))
    FIELD(type), FIELD(flags), FIELD(recsize), FIELD(reserved), FIELD(checktime), FIELD(CID), FIELD(size);
    FIELD(ssize), FIELD(CRC), FIELD(ctime), FIELD(mtime), FIELD(ntaskid), FIELD(nfp), FIELD(nudcid), FIELD(nds);
    FIELD(trefssize), FIELD(bsize), FIELD(fptype), FIELD(dotype), FIELD(reserved2);
#undef FIELD
    EXPECT_EQ(FieldRows("\n## The DO record\n"), rows);
}

TEST(FormatDocument, ExampleOfASegmentRecord) {
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

TEST(FormatDocument, ExampleOfADORecord) {
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
