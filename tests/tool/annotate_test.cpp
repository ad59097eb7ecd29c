// annotate: every byte's row, marks, and the way back. annotated/ has what it prints, written by hand.

#include "tool/tool.h"

namespace {

TEST_F(Tool, AnnotatesAndReadsBack) {
    if (std::endian::native != std::endian::little) {
        GTEST_SKIP() << "the files have fields in the order of little-endian machines";
    }
    for (auto const& [name, options, status] :
         std::vector<std::tuple<std::string, std::string, int>>{{"segment", "", 0},
                                                                {"object", "", 0},
                                                                {"form3", "--serialized --dotype 3 --fptype 0", 0},
                                                                {"form4", "--serialized --dotype 4 --fptype 0", 1},
                                                                {"broken", "", 1},
                                                                {"unknown", "", 1},
                                                                {"empty", "", 1}}) {
        SCOPED_TRACE(name);
        std::string const file = CRRECORD_ANNOTATED "/" + name + ".txt";
        EXPECT_EQ(Shell(">bytes; $T annotate --reverse " + file + " -o bytes"), name == "empty" ? 1 : 0) << err;
        EXPECT_EQ(Shell("$T annotate " + options + " - <bytes"), status) << err;
        std::string const text = out;
        EXPECT_EQ(text, String(file));

        EXPECT_EQ(Shell("$T annotate --json " + options + " - <bytes"), status) << err;
        Bytes bytes;
        std::size_t findings = 0, marks = 0;
        for (json const& record : Lines()) {
            std::size_t size = 0;
            for (json const& row : record["rows"]) {
                Bytes const digits = FromHex(row["bytes"]);
                EXPECT_EQ(row["offset"], std::to_string(size));
                EXPECT_EQ(row["size"], std::to_string(digits.size()));
                EXPECT_NE(text.find("  " + row["value"].get<std::string>() + "\n"), text.npos) << row;
                bytes = bytes + digits;
                size += digits.size();
            }
            EXPECT_EQ(record["size"], std::to_string(size));
            findings += record["findings"].size();
        }
        EXPECT_EQ(bytes, Read("bytes"));
        for (std::size_t at = text.find("\n!!"); at != text.npos; at = text.find("\n!!", at + 1)) {
            ++marks;
        }
        EXPECT_EQ(findings, marks);
    }
}

// Records that are changed, cut short, too long, and one behind the other, come back as they were.
TEST_F(Tool, ReadsDamagedRecordsBack) {
    Write("file", Text("abcabc12"));
    ASSERT_EQ(Shell("$T segments build file -o seg --segment-size 3; $T build file -o do --segment-size 3 --task 1"),
              0);
    Bytes const records = Read("do") + Read("seg");
    unsigned int state = 1;
    auto const random = [&](std::size_t below) { return (state = state * 1664525 + 1013904223) / 65536 % below; };
    for (int i = 0; i < 300; ++i) {
        Bytes bytes = records;
        bytes[random(bytes.size())] = static_cast<unsigned char>(random(256));
        bytes[random(96)] ^= static_cast<unsigned char>(1 << random(8));
        bytes.resize(1 + random(bytes.size() + 40));
        Write("in" + std::to_string(i), bytes);
    }
    EXPECT_EQ(Shell("for f in in*; do $T annotate $f | $T annotate --reverse - -o - | cmp - $f || exit; done"), 0)
        << err;
}

TEST_F(Tool, ReadsEditedTextStrictly) {
    EXPECT_EQ(Shell("printf '# a\\n!! b\\n\\n 9\\n0000  aB 0c  d\\r\\n2  dd' | $T annotate --reverse - -o -"), 0);
    EXPECT_EQ(Text(out), FromHex("ab0cdd"));
    for (std::string const bad :
         {"x", "0  a", "0  aa b", "0  aa\\n0  bb", "0  ag", "0 aa", "0  aa,bb", "0  ", "", "# a"}) {
        EXPECT_EQ(Shell("printf '" + bad + "' >bad; $T annotate --reverse bad -o out"), 1) << bad;
        EXPECT_TRUE(err.starts_with("crrecord: bad: ") && err.find("expected ") != err.npos) << err;
    }
    EXPECT_EQ(Files(), "bad ");
}

} // namespace
