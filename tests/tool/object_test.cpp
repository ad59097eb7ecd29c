// The command on DO records and their exchange forms.

#include "tool/tool.h"

#include <ctime>
#include <map>

namespace {

// "abcabc12" cut into three, in containers that hold two.
RecordValues Abcabc12(unsigned char dotype, unsigned char fptype) {
    Bytes const abc = FromHex(kAbcAnd12[fptype][0]), rest = FromHex(kAbcAnd12[fptype][1]);
    return {.dotype = dotype,
            .fptype = fptype,
            .CID = 65,
            .size = 8,
            .ssize = 3,
            .CRC = 2588679498,
            .segments = {{abc, 3, 0, 64}, {abc, 3, 3, 64}, {rest, 2, 6, 65}},
            .list = {{64, 6}, {65, 2}},
            .references = {{2, 3}, {2, 1ul << 40}, {4, 5}}};
}

std::string TypeOptions(RecordValues const& values) {
    return " --dotype " + std::to_string(values.dotype) + " --fptype " + std::to_string(values.fptype);
}

unsigned int Network32(Bytes const& bytes, std::size_t at) {
    return static_cast<unsigned int>(std::stoul(HexOf({&bytes.at(at), &bytes.at(at) + 4}), nullptr, 16));
}

// Takes the times of a new record over, after a look at them.
void TakeTimes(RecordValues& values, Bytes const& record) {
    values.ctime = Network32(record, 0x2c);
    values.mtime = Network32(record, 0x30);
    auto const now = static_cast<unsigned int>(std::time(nullptr));
    EXPECT_TRUE(now - values.ctime <= 60 && now - values.mtime <= 60);
}

// Digests from the published algorithms over texts and numbers put together by hand.
TEST_F(Tool, BuildsAndDigestsTheseDORecords) {
    std::map<int, json> const sha256Digests{{0, {}},
                                            {1, "a438958c16e05f41db85aec51597ac08094cc975471d741e84a6eb35d1d47241"},
                                            {2, "ab3fec626a25d0b67b07c206889bebec9122616e8deca6d325a5affc6d204b0f"},
                                            {3, "6d3467e6f04ddea0d874fde07528301db61c930c9071d3e77254f4a72df19d18"},
                                            {5, "c4808d2fbd86283def5e9eff2961e785bc691bdbbb60e255a0332f2d32015c52"}};
    Write("in", Text("abcabc12"));
    Write("segment", Golden({true, 3}));
    for (RecordValues const& example : Examples()) {
        if (example.dotype == 4) {
            continue;
        }
        RecordValues expected = Abcabc12(example.dotype, example.fptype);
        SCOPED_TRACE(NameOf(expected));
        std::string const type = TypeOptions(expected), sizes = " --segment-size 3 --container-size 7" + type;
        ASSERT_EQ(Run("build --task 1099511627776 --dsid 5 --task 3 --task 3 in -o out --json" + sizes), 0) << err;
        TakeTimes(expected, Read("out"));
        Bytes const bytes = Spell(expected, true).bytes;
        EXPECT_EQ(Read("out"), bytes);
        json closing = json::parse(R"({"schema": 1, "file": "in", "out": "out", "bytes": "8", "segments": "3",
            "gap_bytes": "0", "containers": "2", "first_container": "64", "last_container": "65", "CRC": 2588679498})");
        closing["record_bytes"] = std::to_string(bytes.size());
        EXPECT_EQ(json::parse(out), closing);
        ASSERT_EQ(Shell("\"$T\" verify out in && \"$T\" build - -o -" + sizes + " <in | \"$T\" verify - in"), 0);
        Write("host", Spell(expected, false).bytes);
        Write("form", SpellForm(expected, true));
        ASSERT_EQ(Shell("cat host segment out | \"$T\" digest --json"), 0) << err;
        auto const lines = Lines();
        ASSERT_EQ(Run("digest form --serialized --checksum" + type), 0) << err;
        if (expected.fptype == 3) {
            json const& digest = sha256Digests.at(expected.dotype);
            EXPECT_EQ(lines.at(0)["digest"], digest);
            EXPECT_EQ(out, (digest.is_null() ? "-" : digest.get<std::string>()) + "  form: record 1\n");
        }
        EXPECT_TRUE(lines.at(1)["digest"].is_null() && lines.at(2)["digest"] == lines.at(0)["digest"]);
    }
}

// Equal digests, different content. The last pair: the content of the one is the text that the other's digest hashes.
TEST_F(Tool, KeysSeparateObjectsWithEqualDigests) {
    auto const key = [this](RecordValues const& values) {
        Write("in", Spell(values, true).bytes);
        EXPECT_EQ(Shell("\"$T\" digest in; \"$T\" digest --key in; \"$T\" digest --json in"), 0) << err;
        std::istringstream lines(out);
        std::string digest, text, rest;
        lines >> digest >> rest >> rest >> rest >> text >> rest >> rest >> rest;
        std::getline(lines >> std::ws, rest);
        json const line = json::parse(rest);
        EXPECT_TRUE(line["digest"] == digest && line["key"] == text) << rest;
        return std::pair(digest, text);
    };
    std::string const abc = kAbcAnd12[0][0];
    auto const single = [&](unsigned char dotype, unsigned long size, unsigned long offset) {
        return key({.dotype = dotype, .size = size, .segments = {{FromHex(abc), 3, offset, 64}}});
    };
    EXPECT_EQ(single(3, 3, 0), std::pair(abc, abc + "-0-3-3-1-0"));
    EXPECT_EQ(single(3, 4099, 4096), std::pair(abc, abc + "-0-3-4099-1-4096"));
    EXPECT_EQ(single(3, 4099, 0), std::pair(abc, abc + "-0-3-4099-1-0"));
    EXPECT_EQ(single(5, 3, 7), std::pair(abc, abc + "-0-5-3-1-7"));
    EXPECT_EQ(single(2, 3, 7), std::pair(abc, abc + "-0-2-3-1-0"));
    RecordValues parts{.dotype = 1, .size = 69, .ssize = 35};
    parts.segments = {{FromHex(abc), 35, 0, 64}, {FromHex(kAbcAnd12[0][1]), 34, 35, 64}};
    // MD5 of both fingerprints' texts with their NULs and "DO" with its own.
    std::string const hash = "cc93a95f5da8bee94d18b44bd2a961f7";
    EXPECT_EQ(key(parts), std::pair(hash, hash + "-0-1-69-2-0"));
    EXPECT_EQ(key({.dotype = 1, .size = 69, .ssize = 69, .segments = {{FromHex(hash), 69, 0, 64}}}),
              std::pair(hash, hash + "-0-1-69-1-0"));
}

// There and back through every form, each spelled by itself.
TEST_F(Tool, ConvertsBetweenAllForms) {
    for (RecordValues values : Examples()) {
        SCOPED_TRACE(NameOf(values));
        Bytes const host = Spell(values, false).bytes;
        Bytes const network = Spell(values, true).bytes;
        Write("in", host + network);
        ASSERT_EQ(Run("convert in --to network -o out --json"), 0) << err;
        EXPECT_EQ(Read("out"), network + network);
        EXPECT_EQ(json::parse(out)["converted"], std::endian::native == std::endian::little ? "1" : "0");
        ASSERT_EQ(Run("convert in --to host -o out"), 0) << err;
        EXPECT_EQ(Read("out"), host + host);
        std::string const flag = values.fptype % 2 ? " --checksum" : "";
        Write("network", network);
        ASSERT_EQ(Run("convert network --to serialized -o form" + flag), 0) << err;
        EXPECT_EQ(Read("form"), SpellForm(values, values.fptype % 2));
        ASSERT_EQ(Run("convert form --serialized --to network -o made" + TypeOptions(values) + flag), 0) << err;
        values.flags = 0;
        values.CID = 0;
        values.CRC = Network32(Read("form"), 16);
        values.list.resize(values.dotype == 4 ? values.list.size() : 0);
        TakeTimes(values, Read("made"));
        EXPECT_EQ(Read("made"), Spell(values, true).bytes);
    }
}

TEST_F(Tool, ShowsEveryFieldOfADORecord) {
    RecordValues values = Abcabc12(3, 0);
    values.checktime = 86400;
    values.taskIds = {99};
    values.references.clear();
    Write("in", Spell(values, true).bytes);
    json const expected = json::parse(R"({"schema": 1, "file": "in", "record": 1, "offset": "0", "kind": "do",
        "order": "network", "valid": true, "type": 3, "flags": 2, "recsize": 260, "reserved": 0, "checktime": 86400, "CID": "65",
        "size": "8", "ssize": "3", "CRC": 2588679498, "ctime": 555885348, "mtime": 825373492, "ntaskid": 1, "nfp": 3,
        "nudcid": 2, "nds": 0, "trefssize": 0, "bsize": 0, "fptype": 0, "dotype": 3, "reserved2": [0, 0],
        "containers": [{"dcid": "64", "bytes": "6"}, {"dcid": "65", "bytes": "2"}], "references": [],
        "legacy_references": ["task:99"], "segments": [{"index": 2, "fingerprint": "c20ad4d76fe97759aa27a0c99bff6710",
        "size": 2, "offset": "6", "dcid": "65"}]})");
    ASSERT_EQ(Run("show in --json --segments 2:"), 0);
    EXPECT_EQ(Lines()[0], expected);
    ASSERT_EQ(Shell("$T show in --segments 3: | tail -n 1; $T show in --records 2:3"), 0);
    EXPECT_EQ(out, "No segments in this range: the last one is 2, counted from 0\n"
                   "in: no records in this range: the last one is 1, counted from 1\n");
    ASSERT_EQ(
        Shell("$T show in --segments 2 | grep -c '^ .*  [0-9a-f]\\{32\\}$'; $T show in --segments none | tail -n 2"),
        0);
    EXPECT_EQ(out, "1\nreferences\n  task:99 (legacy)\n");
    ASSERT_EQ(Run("show in --json --segments none"), 0);
    EXPECT_TRUE(Lines()[0]["nfp"] == 3 && Lines()[0]["segments"] == json::array()) << out;
    ASSERT_EQ(Run("show in --text"), 0);
    EXPECT_EQ(out.substr(0, 55), "3,1,2,65,8,3,2588679498,555885348,825373492,0,3,3,[[900");
    EXPECT_EQ(out.substr(out.size() - 31), "6710,2,6][64,64,65]],[task:99]\n");
    Write("in", SpellForm(Example(4, 3), true));
    ASSERT_EQ(Run("show in --json --serialized --dotype 4 --fptype 3"), 0) << err;
    EXPECT_EQ(Lines()[0]["bitmap"], "b1b2b3b4b5");
    EXPECT_EQ(Lines()[0]["containers"][0]["dcid"], "7017280452245743464");
}

// DO type 1 has no offsets, so they are positions; DO type 3 has a gap; a segment record has one row.
TEST_F(Tool, ShowsSegmentsAsCsv) {
    RecordValues gap = Abcabc12(3, 0);
    gap.size += 10;
    gap.segments[2].offset += 10;
    Bytes stored = Golden({true, 1}), elsewhere = stored;
    Splice(stored, 24, Spelled(99, 8, true) + Spelled(0, 8, true) + Spelled(5, 8, true));
    Splice(elsewhere, 40, Spelled(5, 8, true));
    Write("in", Spell(gap, true).bytes + stored + Spell(Abcabc12(1, 0)).bytes + elsewhere + Spell(Example(4, 0)).bytes);
    std::string const abc = kAbcAnd12[0][0], rest = kAbcAnd12[0][1], own = "2c0102030405060708090a0b0c0d0e0f";
    ASSERT_EQ(Run("show --csv in"), 0) << err;
    EXPECT_EQ(out, "record,segment,fingerprint,size,offset,dcid\n1,0," + abc + ",3,0,64\n1,1," + abc + ",3,3,64\n1,2," +
                       rest + ",2,16,65\n2,," + own + ",5,,99\n3,0," + abc + ",3,0,64\n3,1," + abc + ",3,3,64\n3,2," +
                       rest + ",2,6,65\n4,," + own + ",5,,\n");
    ASSERT_EQ(Run("show --csv in --records 3 --segments 1"), 0) << err;
    EXPECT_EQ(out, "record,segment,fingerprint,size,offset,dcid\n3,1," + abc + ",3,3,64\n");
}

// A stream of both kinds in both orders, cut anywhere, ends in a bad record unless it ends between two.
TEST_F(Tool, StreamsOfBothKinds) {
    Bytes whole;
    std::vector<std::size_t> ends{0};
    for (bool const network : {true, false}) {
        for (Bytes const& record : {Golden({network, 3}), Spell(Example(3, 3), network).bytes}) {
            whole = whole + record;
            ends.push_back(whole.size());
        }
    }
    for (std::size_t record = 1; record < ends.size(); ++record) {
        std::size_t const from = ends[record - 1], size = ends[record] - from;
        for (std::size_t const part : {1ul, 2ul, 79ul, 80ul, 95ul, 103ul, size - 1, size}) {
            SCOPED_TRACE(testing::Message() << record << ": " << part);
            Write("in", {&whole[0], &whole[from] + part});
            ASSERT_EQ(Run("validate --json in"), part == size ? 0 : 1) << err;
            json const last = Lines().at(record - 1);
            EXPECT_TRUE(last["record"] == record && last["offset"] == std::to_string(from)) << last;
            EXPECT_EQ(last["valid"], part == size);
            for (char const* const verb : {"show in", "digest in", "convert in --to host -o out"}) {
                EXPECT_EQ(Run(verb), part == size ? 0 : 1) << verb;
            }
            EXPECT_EQ(Files(), part == size ? "in out " : "in ");
            Shell("rm -f out");
        }
    }
}

// A form with a wrong fingerprint digit.
TEST_F(Tool, NamesDamageInAForm) {
    Bytes form = SpellForm(Abcabc12(3, 3), true);
    form[30] = 'A';
    Write("in", form);
    std::string const type = " in --serialized --dotype 3 --fptype 3";
    for (std::string const verb : {"digest", "convert --to host -o none", "validate --json"}) {
        EXPECT_EQ(Run(verb + type), 1) << verb;
    }
    EXPECT_EQ(FindingsOf(Lines()[0]).substr(0, 17), "form-fingerprint ");
}

#ifndef CRRECORD_TOOL_IS_SANITIZED
// Under limits from the least that loads the command up to one under which two threads fit: each run ends by itself.
TEST_F(Tool, BuildsOrReportsWithoutMemory) {
    Write("in", Bytes(3'000'000, 'x'));
    for (std::string const verb : {"build", "segments build"}) {
        Shell("for kib in $(seq 9000 500 34000); do "
              "(ulimit -v $kib; \"$T\" --version >&2) || continue; "
              "(ulimit -v $kib; \"$T\" " +
              verb + " in -o out >&2); echo $?; rm -f out; done | sort -u");
        EXPECT_EQ(out, "0\n2\n") << verb;
        EXPECT_EQ(Files(), "in ");
    }
}
#endif

} // namespace
