// The verbs that compare, count and change records.

#include "tool/tool.h"

namespace {

// An object of DO type 3 from words such as z4@20/64: a fingerprint of z's, 4 bytes, position 20, container 64.
RecordValues Object(std::string const& words) {
    RecordValues values{.dotype = 3, .fptype = 0};
    std::istringstream text(words);
    char letter = 0, mark = 0;
    for (SegmentValues s{}; text >> letter >> s.size >> mark >> s.offset >> mark >> s.dcid;) {
        s.fingerprint = Bytes(16, static_cast<unsigned char>(letter));
        values.segments.push_back(s);
        values.size = s.offset + s.size;
    }
    return values;
}

constexpr char kObject[] = "z4@0/64 z4@4/64 a0@8/70 a5@8/65 z4@20/64";

TEST_F(Tool, DiffMatchesEachSegmentOnce) {
    std::pair<char const*, char const*> const cases[] = {
        {"z4@0/64 z4@5/64 z4@9/64 z4@13/64", "1 4 2 8 1 4 2 5 0 0 "},
        {"z5@0/64", "0 0 0 0 1 5 5 17 0 0 "},
        {"z4@0/64 z4@4/99 a5@8/66 z4@20/64", "4 17 0 0 0 0 1 0 2 9 "},
        {"z4@0/64 z4@4/64 b0@8/70 a0@8/70 a5@8/65 z4@20/64", "5 17 0 0 1 0 0 0 0 0 "}};
    Write("a", Spell(Object(kObject), true).bytes);
    for (auto const& [words, sums] : cases) {
        Write("b", Spell(Object(words), false).bytes);
        EXPECT_EQ(Run("diff a b --json --segments"), 1) << err;
        std::string found;
        for (char const* const fate : {"shared", "moved", "added", "removed", "relocated"}) {
            json const sum = json::parse(out)[fate];
            found += sum["segments"].get<std::string>() + " " + sum["bytes"].get<std::string>() + " ";
        }
        EXPECT_EQ(found, sums) << words;
    }
}

TEST_F(Tool, DiffJoinsSegmentsToRuns) {
    struct {
        char const *a, *b, *runs;
    } const cases[] = {
        {"a4@0/64 b4@4/64 c4@8/64 d4@12/64", "x4@0/64 a4@4/64 b4@8/64 c4@12/65 d4@16/65",
         "moved by +1: 4 segments, 16 bytes (0 to 3), offsets by +4\nadded: 1 segment, 4 bytes (0 to 0)\n"},
        {"a4@0/64 b4@4/64 c4@8/64 d4@12/64", "d4@0/64 b4@4/65 c4@8/65",
         "relocated from container 64 to 65: 2 segments, 8 bytes (1 to 2)\n"
         "moved by -3: 1 segment, 4 bytes (3 to 3), offsets by -12\nremoved: 1 segment, 4 bytes (0 to 0)\n"},
        {"a4@0/64 b4@4/64 c4@8/64", "a4@0/65 b4@4/66 c4@9/64", // another container, another distance
         "relocated from container 64 to 65: 1 segment, 4 bytes (0 to 0)\n"
         "relocated from container 64 to 66: 1 segment, 4 bytes (1 to 1)\n"
         "moved by +0: 1 segment, 4 bytes (2 to 2), offsets by +1\n"},
        {"a4@0/64 b4@4/64 c4@8/64", "a4@1/64 b4@5/64 c4@10/64",
         "moved by +0: 2 segments, 8 bytes (0 to 1), offsets by +1\n"
         "moved by +0: 1 segment, 4 bytes (2 to 2), offsets by +2\n"},
    };
    for (auto const& row : cases) {
        Write("a", Spell(Object(row.a)).bytes);
        Write("b", Spell(Object(row.b)).bytes);
        ASSERT_EQ(Run("diff a b"), 1) << err;
        EXPECT_EQ(out.substr(0, out.find("shared ")), row.runs);
    }
    ASSERT_EQ(Run("diff a b --json"), 1) << err;
    EXPECT_EQ(json::parse(out)["runs"][1], json::parse(R"({"what": "moved", "segments": "1", "bytes": "4",
        "a": {"index": 2, "offset": "8", "dcid": "64"}, "b": {"index": 2, "offset": "10", "dcid": "64"}})"));
    EXPECT_TRUE(Run("diff a b --json --summary") == 1 && !json::parse(out).contains("runs")) << out;
}

TEST_F(Tool, DiffTellsWhatElseDiffers) {
    RecordValues values = Object(kObject), bloom = Example(4, 0);
    values.references = {{0, 1}, {2, 3}, {4, 5}};
    Write("a", Spell(values, true).bytes);
    Write("same", Spell(values, false).bytes);
    EXPECT_EQ(Run("diff a same"), 0) << out;
    values.references = {{2, 3}, {2, 4}, {4, 5}};
    values.list = {{65, 5}};
    ++values.mtime;
    Write("b", Spell(values, true).bytes);
    ASSERT_EQ(Run("diff a b --json"), 1) << err;
    json const expected = json::parse(R"({"references": {"added": ["task:4"], "removed": ["ref0:1"]}, "header":
        [{"field": "mtime", "a": "825373492", "b": "825373493"}, {"field": "nudcid", "a": "0", "b": "1"}], "containers":
        [{"dcid": "65", "a": {"segments": "1", "bytes": "5", "listed": "0"}, "b": {"segments": "1", "bytes": "5",
        "listed": "5"}}]})");
    json found = json::parse(out);
    found.merge_patch(expected);
    EXPECT_EQ(json::parse(out), found);
    Run("diff a b | grep -A 9 'mtime: 1996-02-26 22:24:52 UTC ->'");
    EXPECT_NE(out.find("\ncontainer 65: listed 0 bytes -> 5 bytes\n"), out.npos) << out;
    EXPECT_EQ(Run("diff --summary a b"), 1);
    EXPECT_TRUE(out.starts_with("shared    5 segments") &&
                out.ends_with("relocated 0 segments of 0 bytes\na and b: different\n"))
        << out;
    Write("a", Spell(bloom, true).bytes);
    bloom.bitmap[4] ^= 1;
    Write("b", Spell(bloom, true).bytes);
    EXPECT_TRUE(Run("diff a b --json") == 1 && json::parse(out)["bitmaps_differ"]) << out;
}

TEST_F(Tool, StatsAddsUpByContainer) {
    RecordValues bloom = Example(4, 0);
    bloom.list = {{65, 1000}};
    Bytes segment = Golden({true, 3}), elsewhere = segment; // one in a container, one in a file
    Splice(segment, 24, Spelled(65, 8, true) + Spelled(0, 8, true) + Spelled(7, 8, true));
    Splice(elsewhere, 40, Spelled(9, 8, true));
    Write("in",
          Spell(Object(kObject), true).bytes + segment + Spell(Object(kObject), false).bytes + Spell(bloom).bytes);
    Write("more", elsewhere + segment + Text("x"));
    EXPECT_EQ(Run("stats in more --unique --json"), 1);
    EXPECT_EQ(
        json::parse(out),
        json::parse(
            R"({"schema": 1, "records": "6", "bad_records": "1", "segments": "13", "skipped_bytes": "0", "unread_bytes": "0",
        "bytes": "1057", "elsewhere": {"segments": "1", "bytes": "9"}, "unique_segments": "5", "unique_bytes": "25", "repeated_bytes": "32",
        "container_count": "3", "containers": [{"dcid": "64", "segments": "6", "bytes": "24", "fragments": "4"},
        {"dcid": "65", "segments": "4", "bytes": "1024", "fragments": "4"},
        {"dcid": "70", "segments": "2", "bytes": "0", "fragments": "2"}]})"));
}

TEST_F(Tool, SumsOfBytesDoNotWrap) {
    RecordValues bloom = Example(4, 0), sparse{.dotype = 3, .size = ~0ul};
    bloom.list = {{64, 1}, {65, ~0ul}, {65, 1}};
    sparse.segments = {{Bytes(16), 5, 0, 70}};
    Bytes large = Golden({true, 3}), small = large;
    Splice(large, 40, Bytes(8, 0xff));
    Splice(small, 40, Spelled(9, 8, true));
    Write("in", small + large + Spell(bloom).bytes + Spell(sparse).bytes);
    EXPECT_EQ(Run("show --records :2 in | grep 'in 384 bytes, describing more than 2^64 - 1 bytes of segments'"), 0);
    ASSERT_EQ(Run("stats --json in"), 2) << err;
    json const sums = json::parse(out);
    EXPECT_TRUE(sums["records"] == "2" && sums["bytes"] == "14" && sums["container_count"] == "1") << sums;
    std::string const end = ": omitted: the sum would exceed 2^64 - 1 bytes\n";
    EXPECT_EQ(err, "crrecord: in: record 2 at byte 192" + end + "crrecord: in: record 3 at byte 384" + end);
    RecordValues computed{.dotype = 0, .size = 10, .ssize = 100}; // the last of three has 2^32 - 190 bytes
    computed.segments.assign(3, {Bytes(16), 0, 0, 70});
    Splice(large, 40, Spelled(~0ul - 99, 8, true));
    Write("in", large + Spell(computed).bytes);
    EXPECT_TRUE(Run("stats in") == 2 && err == "crrecord: in: record 2 at byte 192" + end) << err;
}

TEST_F(Tool, RefsChangesAllRecordsInTheirOrder) {
    RecordValues values = Object(kObject), changed = values, legacy = values;
    values.references = {{2, 3}, {2, 7}, {6, 9}};
    changed.references = {{2, 5}, {2, 7}, {4, 1}};
    legacy.taskIds = {7, 3};
    Write("in", Spell(values, true).bytes + Spell(legacy, false).bytes);
    Write("active", Text("18446744073709551615\r\n7"));
    ASSERT_EQ(Run("refs in --add task:5 --add dsid:1 --remove ref6:9 --drop-inactive active -o in --json"), 0) << err;
    EXPECT_EQ(json::parse(out), json::parse(R"({"schema": 1, "file": "in", "out": "in", "records": "2", "added": "4",
        "removed": "1", "dropped": "2", "references": "6", "segment_records": "0"})"));
    Bytes const written = Read("in"), expected = Spell(changed, true).bytes + Spell(changed, false).bytes;
    Bytes timeless = written;
    Splice(timeless, 0x30, Spelled(values.mtime, 4, true));
    Splice(timeless, expected.size() / 2 + 0x30, Spelled(values.mtime, 4, false));
    EXPECT_TRUE(written != timeless && timeless == expected);
    std::pair<char const*, std::string> const refusals[] = {
        {"--add task:1x", "--add: found \"task:1x\", expected a reference such as task:17 (kind 2), dsid:5 (kind 4) or "
                          "ref6:9, of kinds 0 to 10 and ids 0 to 18446744073709551615, of dsid to 4294967295\n"},
        {"--remove ref10:1", "in: record 1 at byte 0: The type of reference ref10:1 is unsupported for a DO\n"},
        {"--drop-inactive bad", "bad: line 2: found \"?x\", expected a task id\n"}};
    Write("bad", Text("3\n") + Bytes(1) + Text("x\n7\n"));
    for (auto const& [options, text] : refusals) {
        EXPECT_TRUE(Run(std::string("refs in -o in ") + options) == 2 && err == "crrecord: " + text) << err;
    }
    EXPECT_EQ(Read("in"), written);
    legacy.flags = 1;
    Write("bad", Spell(legacy).bytes + Spell(values).bytes);
    EXPECT_TRUE(Run("refs bad") == 1 && out == "record 2: task:3\nrecord 2: task:7\nrecord 2: ref6:9\n") << out;
}

TEST_F(Tool, RefsDropsEveryTaskOnlyIfAllowed) {
    RecordValues values = Object(kObject);
    values.references = {{2, 3}, {2, 7}, {6, 9}};
    Write("in", Spell(values).bytes);
    EXPECT_EQ(Run("refs in --drop-inactive /dev/null -o out"), 2) << out;
    EXPECT_EQ(err + Files(), "crrecord: /dev/null: has no task ids, so every task would be dropped: --allow-empty "
                             "permits it\nin ");
    EXPECT_EQ(Shell("$T refs in --drop-inactive /dev/null --allow-empty -o out >&2 && $T refs out"), 0) << err;
    EXPECT_EQ(out, "ref6:9\n");
}

TEST_F(Tool, RefsDryRunPrintsTheChangesAndWritesNothing) {
    RecordValues values = Object(kObject), legacy = values;
    values.references = {{2, 3}, {2, 7}, {6, 9}};
    legacy.taskIds = {7};
    Bytes const both = Spell(values, true).bytes + Spell(legacy).bytes;
    Write("in", both);
    Write("active", Text("7\n"));
    std::string const change = "refs in --add task:7 --add dsid:1 --remove ref6:9 --drop-inactive active --dry-run";
    ASSERT_EQ(Run(change + " -o in"), 0) << err;
    EXPECT_EQ(out, "record 1: would remove task:3\nrecord 1: would add dsid:1\nrecord 1: would remove ref6:9\n"
                   "record 2: would add dsid:1\nin: 2 records: 2 would be added, 1 removed, 1 dropped; 4 references\n");
    ASSERT_EQ(Run(change + " --json"), 0) << err;
    EXPECT_EQ(Lines().at(0)["references"], json::parse(R"({"added": ["dsid:1"], "removed": ["task:3", "ref6:9"]})"));
    EXPECT_TRUE(Lines().at(2)["dry_run"] == true && Lines()[2]["dropped"] == "1") << out;
    EXPECT_TRUE(Read("in") == both && Files() == "active in ");
}

} // namespace
