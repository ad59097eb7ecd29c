// The command on DO records and their exchange forms.

#include "support/do_record.h"
#include "tool/tool.h"

#include <ctime>

namespace {

constexpr unsigned char kSegmentTypes[] = {0, 1, 2, 3, 5};

// "abcabc12" cut into three, in containers that hold two.
RecordValues Abcabc12(unsigned char dotype, unsigned char fptype) {
    constexpr char const* kFingerprints[][2] = {
        {"900150983cd24fb0d6963f7d28e17f72", "c20ad4d76fe97759aa27a0c99bff6710"},
        {"a9993e364706816aba3e25717850c26c", "7b52009b64fd0a2a49e6d8a939753077"},
        {"ba7816bf8f01cfea414140de5dae2223", "6b51d431df5d7f141cbececcf79edf3d"},
        {"ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad",
         "6b51d431df5d7f141cbececcf79edf3dd861c3b4069f0b11661a3eefacbba918"},
    };
    Bytes const abc = FromHex(kFingerprints[fptype][0]), rest = FromHex(kFingerprints[fptype][1]);
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

// Takes the times of a new record over, after a look at them.
void TakeTimes(RecordValues& values, Bytes const& record, bool network) {
    ASSERT_GE(record.size(), 104u);
    auto const at = [&](std::size_t offset) {
        auto const word = WordAt<unsigned int>(record, offset);
        return network && std::endian::native == std::endian::little ? static_cast<unsigned int>(SwapBytes(word, 4))
                                                                     : word;
    };
    values.ctime = at(0x2c);
    values.mtime = at(0x30);
    auto const now = static_cast<unsigned int>(std::time(nullptr));
    EXPECT_LE(now - values.ctime, 60u);
    EXPECT_LE(now - values.mtime, 60u);
}

// `findings` of a line as "name offset field".
std::string FindingsOf(json const& line) {
    std::string text;
    for (json const& finding : line["findings"]) {
        text += finding["name"].get<std::string>() + " " + finding["offset"].get<std::string>() + " " +
                finding["field"].get<std::string>() + ";";
    }
    return text;
}

TEST_F(Tool, BuildsTheseDORecords) {
    Write("in", Text("abcabc12"));
    for (unsigned char const dotype : kSegmentTypes) {
        for (unsigned char fptype = 0; fptype < 4; ++fptype) {
            RecordValues expected = Abcabc12(dotype, fptype);
            SCOPED_TRACE(NameOf(expected));
            std::string const options = " --segment-size 3 --container-size 7 --task 1099511627776 --dsid 5 --task 3"
                                        " --task 3 --json" +
                                        TypeOptions(expected);
            ASSERT_EQ(Run("build in -o out" + options), 0) << err;
            TakeTimes(expected, Read("out"), true);
            Bytes const bytes = Spell(expected, true).bytes;
            EXPECT_EQ(Read("out"), bytes);
            json closing = json::parse(R"({"file": "in", "out": "out", "bytes": "8", "segments": "3",
                "gap_bytes": "0", "containers": "2", "first_container": "64", "last_container": "65",
                "crc": 2588679498})");
            closing["record_bytes"] = std::to_string(bytes.size());
            EXPECT_EQ(json::parse(out), closing);
            EXPECT_EQ(Run("validate --json out"), 0);
            EXPECT_EQ(FindingsOf(Lines()[0]), "");
            EXPECT_EQ(Run("verify out in"), 0) << out;
            ASSERT_EQ(
                Shell("\"$T\" build - -o - --segment-size 3" + TypeOptions(expected) + " <in | \"$T\" verify - in"), 0)
                << err;
        }
    }
}

// Digests from the published algorithms over texts and numbers put together by hand.
TEST_F(Tool, DigestsOfRecordsInEveryForm) {
    struct {
        unsigned char dotype, fptype;
        char const* digest;
    } const rows[] = {
        {0, 3, nullptr},
        {1, 3, "a438958c16e05f41db85aec51597ac08094cc975471d741e84a6eb35d1d47241"},
        {2, 3, "ab3fec626a25d0b67b07c206889bebec9122616e8deca6d325a5affc6d204b0f"},
        {2, 0, "57156f8d415a3324030214cd54099e5d"},
        {3, 3, "6d3467e6f04ddea0d874fde07528301db61c930c9071d3e77254f4a72df19d18"},
        {5, 3, "c4808d2fbd86283def5e9eff2961e785bc691bdbbb60e255a0332f2d32015c52"},
    };
    Write("segment", Golden({true, 3}));
    for (auto const& row : rows) {
        RecordValues const values = Abcabc12(row.dotype, row.fptype);
        SCOPED_TRACE(NameOf(values));
        Write("host", Spell(values, false).bytes);
        Write("network", Spell(values, true).bytes);
        Write("form", SpellForm(values, true));
        json const digest = row.digest ? json(row.digest) : json();
        ASSERT_EQ(Shell("cat host segment network | \"$T\" digest --json"), 0) << err;
        ASSERT_EQ(Lines().size(), 3u);
        EXPECT_EQ(Lines()[0]["digest"], digest);
        EXPECT_EQ(Lines()[1]["digest"], json());
        EXPECT_EQ(Lines()[2]["digest"], digest);
        ASSERT_EQ(Run("digest form --serialized --checksum" + TypeOptions(values)), 0) << err;
        EXPECT_EQ(out, std::string(row.digest ? row.digest : "-") + "  form: record 1\n");
    }
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
        EXPECT_EQ(json::parse(out)["converted"], std::endian::native == std::endian::little ? 1 : 0);
        ASSERT_EQ(Run("convert in --to host -o out"), 0) << err;
        EXPECT_EQ(Read("out"), host + host);
        for (bool const checksum : {false, true}) {
            std::string const flag = checksum ? " --checksum" : "";
            Bytes const form = SpellForm(values, checksum);
            Write("network", network);
            ASSERT_EQ(Run("convert network --to serialized -o form" + flag), 0) << err;
            EXPECT_EQ(Read("form"), form);
            ASSERT_EQ(Run("convert form --serialized --to network -o made" + TypeOptions(values) + flag), 0) << err;
            RecordValues made = values;
            made.flags = 0;
            made.CID = 0;
            made.CRC = static_cast<unsigned int>(SwapBytes(WordAt<unsigned int>(form, 16), 4));
            made.list = values.dotype == 4 ? values.list : decltype(values.list)();
            TakeTimes(made, Read("made"), true);
            EXPECT_EQ(Read("made"), Spell(made, true).bytes);
        }
    }
    Write("in", Golden({true, 3}));
    ASSERT_EQ(Run("convert in --to serialized -o form"), 0) << err;
    EXPECT_EQ(Read("form").size(), 32u + 2 * 65 + 1);
}

TEST_F(Tool, ShowsARecordForPeopleAndPrograms) {
    RecordValues values = Abcabc12(3, 0);
    values.checktime = 86400;
    values.taskIds = {99};
    values.references.clear();
    Write("in", Spell(values, true).bytes);
    ASSERT_EQ(Run("show in --segments 1:1"), 0) << err;
    EXPECT_EQ(out, R"(Record 1 at byte 0: DO record in network order, 260 bytes
  DO type       3: fingerprints, sizes, 64-bit offsets
  fingerprints  0: MD5
  object        8 bytes in 3 segments
  segment size  3 bytes
  CRC           9a4c1d4a
  own container 65
  flags         0x0002
  created       1987-08-13 20:35:48 UTC
  changed       1996-02-26 22:24:52 UTC
  checked       1970-01-02 00:00:00 UTC

           container                 bytes
                  64                     6
                  65                     2

references
  task:99 (legacy)

   segment           at byte       bytes             container  fingerprint
         1                 3           3                    64  900150983cd24fb0d6963f7d28e17f72
Segments 1 to 1 of 3; --segments FROM:TO shows others
)");
    std::string const fields = R"("file": "in", "record": 1, "offset": "0", "kind": "do", "order": "network",
        "valid": true, "type": 3, "flags": 2, "recsize": 260, "reserved": 0, "checktime": 86400, "CID": "65",
        "size": "8", "ssize": "3", "CRC": 2588679498, "ctime": 555885348, "mtime": 825373492, "ntaskid": 1, "nfp": 3,
        "nudcid": 2, "nds": 0, "trefssize": 0, "bsize": 0, "fptype": 0, "dotype": 3, "reserved2": [0, 0],
        "containers": [{"dcid": "64", "bytes": "6"}, {"dcid": "65", "bytes": "2"}], "references": [],
        "legacy_references": ["task:99"], "segments": [{"index": 2, "fingerprint": "c20ad4d76fe97759aa27a0c99bff6710",
        "size": 2, "offset": "6", "dcid": "65"}])";
    ASSERT_EQ(Run("show in --json --segments 2:"), 0);
    EXPECT_EQ(Lines()[0], json::parse("{" + fields + "}"));
    ASSERT_EQ(Run("show in --json"), 0);
    EXPECT_EQ(Lines()[0]["segments"].size(), 3u);
    ASSERT_EQ(Run("show in --text"), 0);
    EXPECT_EQ(out.substr(0, 55), "3,1,2,65,8,3,2588679498,555885348,825373492,0,3,3,[[900");
    EXPECT_EQ(out.substr(out.size() - 31), "6710,2,6][64,64,65]],[task:99]\n");
    Write("in", SpellForm(Example(4, 3), true));
    ASSERT_EQ(Run("show in --json --serialized --dotype 4 --fptype 3"), 0) << err;
    EXPECT_EQ(Lines()[0]["bitmap"], "b1b2b3b4b5");
    EXPECT_EQ(Lines()[0]["containers"][0]["dcid"], "7017280452245743464");
}

// A stream of both kinds in both orders, cut anywhere, ends in a bad record unless it ends between two.
TEST_F(Tool, StreamsOfBothKinds) {
    Bytes whole;
    std::vector<std::size_t> ends{0};
    for (bool const network : {true, false}) {
        for (Bytes const& record :
             {Golden({network, 3}), Spell(Example(3, 3), network).bytes, Spell(Example(4, 0), network).bytes}) {
            whole = whole + record;
            ends.push_back(whole.size());
        }
    }
    std::vector<std::size_t> cuts = ends;
    for (std::size_t const end : ends) {
        cuts.insert(cuts.end(), {end + 1, end + 2, end + 79, end + 80, end + 95, end + 103});
    }
    for (std::size_t const cut : cuts) {
        if (cut > whole.size()) {
            continue;
        }
        SCOPED_TRACE(cut);
        Write("in", Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(cut)));
        bool const good = cut != 0 && std::find(ends.begin(), ends.end(), cut) != ends.end();
        auto const begun = std::count_if(ends.begin(), ends.end(), [&](std::size_t end) { return end < cut; });
        ASSERT_EQ(Run("validate --json in"), good ? 0 : 1) << err;
        ASSERT_EQ(Lines().size(), static_cast<std::size_t>(std::max(begun, 1l)));
        EXPECT_EQ(Lines().back()["valid"], good);
        EXPECT_EQ(Run("show in"), good ? 0 : 1);
        EXPECT_EQ(Run("digest in"), good ? 0 : 1);
    }
}

// The middle one of three records is changed in one byte; the last one is found all the same.
TEST_F(Tool, NamesDamageInADORecord) {
    SpelledRecord const record = Spell(Abcabc12(3, 3), true);
    struct {
        std::size_t offset;
        char const* findings;
    } const rows[] = {
        {7, "do-recsize 4 recsize;"},
        {3, "do-flags 2 flags;"},
        {record.entries, ""}, // a fingerprint is verify's business
        {record.entries + 32, "segment-size 112 segments[0].size;"},
        {record.entries + 35, "segment-overlap 160 segments[1].offset;"},
        {record.list + 8, "do-list-checksum 236 unique.checksum;"},
        {record.references, "do-reference 276 references;"},
        {record.tail, "do-non-zero 302 tail;"},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.offset);
        Bytes bad = record.bytes;
        bad[row.offset] ^= 0x80;
        Write("in", Golden({true, 3}) + bad + Golden({false, 3}));
        std::string const expected = row.findings;
        bool const valid = expected.empty() || expected.substr(0, 11) == "do-non-zero";
        EXPECT_EQ(Run("validate --json in"), valid ? 0 : 1);
        ASSERT_EQ(Lines().size(), 3u) << out;
        EXPECT_EQ(FindingsOf(Lines()[1]).substr(0, expected.size()), expected) << out;
        EXPECT_EQ(FindingsOf(Lines()[1]).empty(), expected.empty());
        EXPECT_EQ(Lines()[2]["valid"], true);
        EXPECT_EQ(Run("convert in --to host -o out"), valid ? 0 : 1);
        EXPECT_EQ(Run("digest in"), valid ? 0 : 1);
    }
    Bytes form = SpellForm(Abcabc12(3, 3), true);
    form[30] = 'A';
    Write("in", form);
    EXPECT_EQ(Run("validate --json --serialized --dotype 3 --fptype 3 in"), 1);
    EXPECT_EQ(FindingsOf(Lines()[0]).substr(0, 17), "form-fingerprint ");
    EXPECT_EQ(Run("convert --serialized --dotype 3 --fptype 3 in --to host -o none"), 1);
    EXPECT_EQ(Run("digest --serialized --dotype 3 --fptype 3 in"), 1);
}

TEST_F(Tool, MemoryFollowsWhatIsThereInDORecordsToo) {
    for (std::size_t const field : {4u, 0x38u, 0x3cu, 0x44u}) { // recsize and counts
        Bytes claim = Spell(Abcabc12(3, 3), true).bytes;
        std::fill_n(claim.begin() + static_cast<std::ptrdiff_t>(field), 4, 0xfe);
        Write("in", claim);
        for (char const* const verb : {"validate in", "show in", "digest in", "convert in --to host -o out"}) {
            EXPECT_EQ(Shell(kMemoryLimit + "\"$T\" " + verb), 1) << verb << err;
        }
        EXPECT_EQ(Shell(kMemoryLimit + "(cat in; head -c 8M /dev/zero) | \"$T\" validate --quiet"), 1);
    }
}

} // namespace
