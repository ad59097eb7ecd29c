// Records made safe to send, and pictures of records.

#include "tool/tool.h"

#include <boost/property_tree/xml_parser.hpp>
#include <regex>

namespace {

// With everything that a reader takes and no writer leaves.
Bytes Messy(RecordValues values, bool network) {
    std::reverse(values.list.begin(), values.list.end());
    values.taskIds = {0xa1a2a3a4a5a6a7a8, 0x8182838485868788}; // the second one is the segment record's, too
    values.dsids = {0xc1c2c3c4};
    values.references = {{9, 0xe1e2e3e4e5e6e7e8}, {4, 0xc1c2c3c4}, {9, 0xe1e2e3e4e5e6e7e8}};
    Bytes record = Spell(values, network).bytes;
    record[8] = record[0x4f] = record.back() = 0xee;
    return record;
}

TEST_F(Tool, RedactsAllThatIdentifiesData) {
    std::regex const renamed("/(CID|CRC|pathid|fileid|fingerprints.*|segments/./(dcid|fingerprint))"),
        replaced("/(file|offset|recsize|ntaskid|nds|word.*|keyi.*|spare|reserved.*|bitmap|ta.*|cont.*|.*ref.*)"),
        secrets("95969798|65666768|85868788|a5a6a7a8|e5e6e7e8|35363738|11121314|c1c2c3c4|98979695|68676665|88878685|"
                "a8a7a6a5|38373635|14131211|c4c3c2c1|d0d1d2d3|e0e1e2e3|b1b2b3b4|60616263|2c010203|f0111213|d1d2e1e2");
    for (RecordValues const& values : Examples()) {
        Bytes contained = Golden({true, values.fptype});
        contained.back() = 0xee;
        Splice(contained, 0x18, Spelled(0x6162636465666768, 8, true) + Bytes(8));
        Splice(contained, 0x60 + 24, values.dotype == 4 ? Bytes() : values.segments[2].fingerprint);
        Write("in", Messy(values, false) + Messy(values, true) + Golden({false, values.fptype}) + contained +
                        Spell(values).bytes);
        Write("key",
              Bytes(16, 7)); // a random key gives a pseudonym with four bytes of a secret once in some thousand runs
        ASSERT_EQ(
            Shell("\"$T\" redact --key key in -o out >&2 && \"$T\" validate --json out && \"$T\" show --json in out"),
            0);
        EXPECT_FALSE(std::regex_search(HexOf(Read("out")), secrets));
        auto const lines = Lines();
        std::map<json, json> names, originals;
        for (std::size_t i = 0; i < 5; ++i) {
            EXPECT_EQ(FindingsOf(lines.at(i)), "");
            json before = lines.at(6 + i).flatten(), after = lines.at(11 + i).flatten();
            EXPECT_EQ(after["/recsize"], before["/recsize"].get<int>() - (i < 2 ? 2 * 8 + 4 + 26 - 36 : 0));
            for (auto const& [path, from] : before.items()) {
                bool const name = std::regex_match(path, renamed);
                EXPECT_EQ(name ? names.emplace(from, after[path]).first->second : after[path], after[path]) << path;
                EXPECT_EQ(name ? originals.emplace(after[path], from).first->second : from, from) << path;
                EXPECT_TRUE(name || std::regex_match(path, replaced) || after[path] == from) << path;
            }
        }
        std::string const task = lines[14]["taskids"][2], references = lines[11]["references"].dump();
        EXPECT_NE(references.find("task:" + task), std::string::npos);
    }
    Write("key", Bytes(32, 7));
    EXPECT_EQ(Shell("\"$T\" redact in --key key -o a; \"$T\" redact in --key key -o - | cmp - a && ! cmp -s a out"), 0);
    EXPECT_EQ(Shell("cat in key >bad; \"$T\" redact bad -o none"), 1);
    EXPECT_EQ(Files(), "a bad in key out ");
}

TEST_F(Tool, DrawsRecordsToScale) {
    RecordValues large{.dotype = 3};
    for (unsigned int i = 0; i < 200000; ++i, large.size += 3) {
        large.segments.push_back({Bytes(16), 3, large.size, 64 + i * 7919ul % 5000});
    }
    Write("a<&\"b", Spell(Example(3, 1)).bytes);
    Write("large", Spell(large).bytes);
    ASSERT_EQ(Shell("\"$T\" map 'a<&\"b' -o a.svg; \"$T\" map large -o b.svg; \"$T\" map large -o - | cmp - b.svg"), 0);
    EXPECT_LT(String("b.svg").size(), 300000u);
    boost::property_tree::ptree picture;
    std::istringstream text(String("a.svg"));
    read_xml(text, picture);
    std::string drawn; // class, place and width of all that has a tooltip
    for (auto const& [name, element] : picture.get_child("svg")) {
        for (std::string const of : {"class", "x", "width"}) {
            drawn += element.count("title") == 1 ? element.get<std::string>("<xmlattr>." + of) + " " : "";
        }
    }
    EXPECT_EQ(drawn, "section s0 20.000 304.762 section s1 324.762 320.000 section s2 644.762 91.429 "
                     "section s3 736.190 152.381 section s4 888.571 91.429 "
                     "first 180.00 53.50 first 233.50 266.67 again 500.17 479.83 ");
}

} // namespace
