// The command on real data: sparse files, and files that are not what their record says.

#include "tool/tool.h"

namespace {

constexpr char kSparse[] = "for i in 1 2 3 4; do head -c 50000 /dev/zero; done | tr '\\0' a >sparse; "
                           "head -c 5000 /dev/zero | tr '\\0' b | dd of=sparse bs=1M seek=1 status=none; "
                           "truncate -s 2M sparse; cp --sparse=never sparse dense; ";

TEST_F(Tool, HolesAreGapsOfType3AndZerosOtherwise) {
    ASSERT_EQ(Shell(std::string(kSparse) + "\"$T\" build sparse -o record --segment-size 64K --json"), 0) << err;
    json const closing = json::parse(out);
    EXPECT_EQ(closing["bytes"], "2097152");
    EXPECT_EQ(closing["CRC"], 1235701743);
    ASSERT_EQ(Run("show --json record"), 0) << err;
    json const record = Lines()[0];
    if (closing["gap_bytes"] == "0") {
        GTEST_SKIP() << "the file system of " << testing::TempDir() << " keeps no holes";
    }
    // Holes begin and end at the file system's blocks.
    std::string segments;
    for (json const& segment : record["segments"]) {
        segments += segment["offset"].get<std::string>() + "+" + to_string(segment["size"]) + " ";
    }
    EXPECT_EQ(segments, "0+65536 65536+65536 131072+65536 196608+4096 1048576+8192 ");
    EXPECT_EQ(closing["gap_bytes"], std::to_string(2097152 - 200704 - 8192));
    for (char const* const verify : {"verify record sparse", "verify record dense", "verify record - <sparse"}) {
        EXPECT_EQ(Run(verify), 0) << out << err;
    }
    ASSERT_EQ(Shell("printf x | dd of=sparse bs=1 seek=1500000 conv=notrunc status=none; \"$T\" verify record sparse"),
              1);
    EXPECT_EQ(out, "sparse: gap at byte 1056768, 1040384 bytes: expected zeros, found data at byte 1500000\n"
                   "record: the record's CRC is 49a74fef, expected 1113adc1, the CRC-32 of the data\n"
                   "sparse: 5 segments, 2097152 bytes: differs, 0 segments bad\n"
                   "sparse: checked: fingerprints, gaps, size, CRC, containers\n");
    for (std::string const type : {"0", "1", "2", "5"}) {
        ASSERT_EQ(Run("build sparse -o zeros --segment-size 64kiB --json --dotype " + type), 0) << err;
        EXPECT_EQ(json::parse(out)["segments"], "32");
        EXPECT_EQ(Run("verify zeros sparse"), 0) << out;
    }
    ASSERT_EQ(Shell("truncate -s 1M hole; \"$T\" build hole -o none"), 2);
    EXPECT_EQ(err, "crrecord: hole: is one hole, so it has no segments\n");
    ASSERT_EQ(Shell("truncate -s 5G hole; \"$T\" build hole -o none --dotype 5"), 2);
    EXPECT_EQ(err, "crrecord: a segment starts beyond 4 GiB, which DO type 5 cannot store: choose DO type 3\n");
}

TEST_F(Tool, VerifyNamesWhatDiffers) {
    constexpr char kBuild[] = "seq 1 3000 | head -c 10000 >in; \"$T\" build in -o record --segment-size 1000 --dotype ";
    struct {
        char const *damage, *bad;
        int size;
    } const rows[] = {
        {"true", "", 10000},
        {"printf xx | dd of=in bs=1 seek=3999 conv=notrunc status=none", "3 4 ", 10000},
        {"printf x >>in", "", 10001},
        {"truncate -s 8500 in", "8 9 ", 8500},
        {"truncate -s 0 in", "0 1 2 3 4 5 6 7 8 9 ", 0},
    };
    for (std::string const type : {"0", "1", "2", "3", "5"}) {
        for (auto const& row : rows) {
            SCOPED_TRACE(type + ": " + row.damage);
            bool const same = std::string(row.damage) == "true";
            ASSERT_EQ(Shell(kBuild + type + "; " + row.damage + "; \"$T\" verify --json record in >verdict"),
                      same ? 0 : 1);
            json const verdict = json::parse(String("verdict"));
            std::string bad;
            std::string others;
            for (json const& difference : verdict["differences"]) {
                if (difference["what"] != "segment") {
                    others += difference["what"];
                    continue;
                }
                EXPECT_NE(difference["expected"], difference["found"]);
                bad += std::to_string(difference["index"].get<int>()) + " ";
            }
            EXPECT_EQ(bad, row.bad);
            EXPECT_EQ(others, row.size >= 10000 && !bad.empty() ? "CRC" : "");
            EXPECT_EQ(verdict["size"], std::to_string(row.size));
            EXPECT_TRUE(verdict["expected_size"] == "10000" && verdict["same"] == same);
        }
    }
    ASSERT_EQ(
        Shell("printf 12 >12; printf 34 | \"$T\" build - -o record --fptype 0 >/dev/null; \"$T\" verify record 12"), 1);
    EXPECT_EQ(out, "12: segment 0 at byte 0, 2 bytes: expected e369853df766fa44e1ed0ff613f563bd, found "
                   "c20ad4d76fe97759aa27a0c99bff6710\nrecord: the record's CRC is 9406837a, expected 4f5344cd, the "
                   "CRC-32 of the data\n12: 1 segment, 2 bytes: differs, 1 segment bad\n"
                   "12: checked: fingerprints, gaps, size, CRC, containers\n");
    ASSERT_EQ(Shell("seq 1 3000 >in; \"$T\" build in -o record --segment-size 1000 --dotype 5 >/dev/null; "
                    "printf '\\1' | dd of=record bs=1 seek=$((80 + 40 + 36)) conv=notrunc status=none; "
                    "\"$T\" verify record in"),
              1);
    EXPECT_EQ(out.substr(0, out.find('\n')), "record: segment 1: the record's offset is 16778216, expected 1000");
}

// The data is right and the record is not: its CRC at 0x28, and the bytes of container 65 in its list.
TEST_F(Tool, VerifyChecksTheCrcAndTheList) {
    Bytes const abc = FromHex(kAbcAnd12[0][0]), rest = FromHex(kAbcAnd12[0][1]);
    RecordValues const good{.dotype = 3,
                            .fptype = 0,
                            .size = 10,
                            .CRC = 0x3987d294, // of "abc", 4 zeros, "12" and a zero
                            .segments = {{abc, 3, 0, 64}, {rest, 2, 7, 65}},
                            .list = {{64, 3}, {65, 2}}};
    RecordValues crc = good, none = good, list = good, missing = good, without = good;
    crc.CRC ^= 1;
    none.CRC = 0;
    list.list = {{64, 3}, {65, 3}};
    missing.list = {{64, 3}, {66, 2}};
    without.list.clear();
    struct {
        RecordValues const& values;
        std::string options, lines, checked;
    } const rows[] = {
        {good, "", "", "CRC, containers"},
        {crc, "", "record: the record's CRC is 3987d295, expected 3987d294, the CRC-32 of the data\n",
         "CRC, containers"},
        {crc, " --no-crc", "", "containers; not checked: CRC (--no-crc)"},
        {none, "", "", "containers; not checked: CRC (the record has none)"},
        {without, "", "", "CRC; not checked: containers (the record has no list of them)"},
        {list, "", "record: container 65: 3 bytes in the record's list, expected 2, those of its segments\n",
         "CRC, containers"},
        {missing, "",
         "record: container 65: 0 bytes in the record's list, expected 2, those of its segments\n"
         "record: container 66: 2 bytes in the record's list, expected 0, those of its segments\n",
         "CRC, containers"},
    };
    Write("in", Text("abc") + Bytes(4) + Text("12") + Bytes(1));
    for (bool const network : {true, false}) {
        for (auto const& row : rows) {
            Write("record", Spell(row.values, network).bytes);
            EXPECT_EQ(Run("verify record in" + row.options), row.lines.empty() ? 0 : 1) << err;
            EXPECT_EQ(out, row.lines + "in: 2 segments, 10 bytes: " +
                               (row.lines.empty() ? "matches the record" : "differs, 0 segments bad") +
                               "\nin: checked: fingerprints, gaps, size, " + row.checked + "\n");
        }
    }
    Write("record", Spell(crc).bytes);
    EXPECT_EQ(Run("verify --json record - <in"), 1);
    EXPECT_EQ(json::parse(out)["differences"],
              json::parse(R"([{"what": "CRC", "expected": 965202580, "found": 965202581}])"));
}

// The record is written with a new check time at 0x0c, and unchanged otherwise: a conversion would set its mtime.
TEST_F(Tool, VerifyStampsARecordThatMatches) {
    RecordValues const good{.dotype = 3,
                            .fptype = 0,
                            .size = 3,
                            .CRC = 0,
                            .segments = {{FromHex(kAbcAnd12[0][0]), 3, 0, 64}},
                            .taskIds = {17}};
    for (bool const network : {true, false}) {
        Bytes const record = Spell(good, network).bytes;
        Write("record", record);
        Write("in", Text("abc"));
        auto const before = static_cast<std::uint64_t>(std::time(nullptr));
        ASSERT_EQ(Run("verify --stamp record in -o stamped --json"), 0) << err;
        auto const time = Lines().at(0)["checktime"].get<std::uint64_t>();
        EXPECT_TRUE(before <= time && time <= before + 60) << time;
        Bytes expected = record;
        Splice(expected, 0x0c, Spelled(time, 4, network));
        EXPECT_EQ(Read("stamped"), expected);
        EXPECT_EQ(Run("verify --stamp record in -o - >piped"), 0) << err;
        Bytes piped = Read("piped");
        Splice(piped, 0x0c, Bytes(4));
        EXPECT_EQ(piped, record);
        Write("in", Text("abd"));
        EXPECT_EQ(Run("verify --stamp record in -o none"), 1);
        EXPECT_EQ(Run("verify --stamp record in -o in") + Run("verify record in -o none"), 4) << out;
        EXPECT_EQ(Files(), "in piped record stamped ");
    }
}

// Input of a pipe is hashed in several segments at once, but verified in one after the other.
TEST_F(Tool, BuildsWhatVerifies) {
    ASSERT_EQ(Shell("seq 500000 >in"), 0);
    for (char const* const options : {"--segment-size 1000", "--segment-size 64K", "--segment-size 100000 --fptype 2",
                                      "--segment-size 128K", "--segment-size 256K --cut fixed", "--cut content",
                                      "--cut content:64:1K:4K --dotype 2", "--cut content:1M:1M:4M"}) {
        SCOPED_TRACE(options);
        ASSERT_EQ(Shell(std::string("cat in | \"$T\" build - -o out ") + options), 0) << err;
        EXPECT_EQ(Run("verify out in"), 0) << out;
    }
    EXPECT_EQ(Run("build in -o out --cut content --dotype 1"), 2);
    EXPECT_EQ(Run("build in -o out --cut content:4K:1K:64K"), 2);
    EXPECT_EQ(Run("build in -o out --cut content --segment-size 64K"), 2);
}

// The bytes of a hole end a segment, and those after it are cut as if the file began there.
TEST_F(Tool, CutsByContentAroundHoles) {
    ASSERT_EQ(Shell("seq 100000 | head -c 512K >part && cat part >in && truncate -s 4M in && cat part >>in"), 0);
    ASSERT_EQ(Run("build in -o out --cut content:1K:4K:16K"), 0) << err;
    EXPECT_EQ(Run("verify out in"), 0) << out;
    EXPECT_EQ(Shell("\"$T\" stats --unique --json out | grep -c '\"repeated_bytes\":\"524288\"'"), 0) << out;
}

} // namespace
