// The command on segment records, and what holds for all verbs.

#include "tool/tool.h"

#include <unistd.h>

namespace {

// Records of the same size that lie one behind the other in the tests.
constexpr Shape kHost{false, 3};
constexpr Shape kNetwork{true, 3};
constexpr std::size_t kSize = 192;

// A record of `segments build`, from digits of its own fields only.
std::string BuiltRecord(std::string const& container, std::string const& size, std::string const& crc, int fptype,
                        std::string const& fingerprint) {
    auto const wide = [](std::string const& digits) { return std::string(16 - digits.size(), '0') + digits; };
    return "00020000" + std::string(fptype == 3 ? "00000088" : "00000078") + wide("") + wide("") + wide(container) +
           wide("") + wide(size) + crc + "00000001" + std::string(66, '0') + "0" + std::to_string(fptype) +
           "000000000000" + fingerprint + wide("");
}

TEST_F(Tool, BuildWritesTheseBytes) {
    Write("in", Text("abcabc12"));
    for (int fptype = 0; fptype < 4; ++fptype) {
        SCOPED_TRACE(fptype);
        std::string const abc = BuiltRecord("40", "03", "352441c2", fptype, kAbcAnd12[fptype][0]);
        Bytes const expected = FromHex(abc + abc + BuiltRecord("41", "02", "4f5344cd", fptype, kAbcAnd12[fptype][1]));
        std::string const options = " --segment-size 3 --container-size 6 --fptype " + std::to_string(fptype);
        ASSERT_EQ(Run("segments build in -o out --json" + options), 0) << err;
        EXPECT_EQ(Read("out"), expected);
        json closing = json::parse(R"({"file": "in", "out": "out", "bytes": "8", "segments": "3", "containers": "2",
            "first_container": "64", "last_container": "65"})");
        closing.update(
            {{"schema", 1}, {"record_size", abc.size() / 2}, {"record_bytes", std::to_string(expected.size())}});
        EXPECT_EQ(json::parse(out), closing);
        ASSERT_EQ(Shell("cat in | \"$T\" segments build - -o -" + options), 0) << err;
        EXPECT_EQ(Text(out), expected);
    }
    ASSERT_EQ(Shell("mkfifo pipe; cat pipe >copy & \"$T\" segments build in -o pipe; wait; "
                    "\"$T\" segments build in -o out; cmp out copy && test -p pipe"),
              0);
    ASSERT_EQ(Shell("rm copy pipe; \"$T\" segments build in -o out"), 0);
    EXPECT_EQ(out, "in: 8 bytes in 1 segment, 1 container (64 to 64); 136 bytes of records to out\n");
    EXPECT_EQ(Files(), "in out ");
}

TEST_F(Tool, ShowsEveryFieldInEitherOrder) {
    Bytes network = Golden({true, 1});
    Bytes host = Golden({false, 1});
    SetLow(network, true, network.size() - 8, 8, 5);
    SetLow(host, false, host.size() - 8, 8, 5);
    Write("in", network + host);
    bool const little = std::endian::native == std::endian::little;
    json expected = json::parse(R"({"schema": 1, "file": "in", "kind": "segment", "valid": true, "type": 2, "flags": 2,
        "recsize": 160, "word8": 286397204, "ntaskids": 3, "checktime": 555885348, "pathid": "72623859790382856",
        "fileid": "3544952156018063160", "size": "4702394921427289928", "CRC": 1364349780, "nfp": 2, "fptype": 1,
        "cryptomode": 193, "reserved": 0, "taskids": ["65", "18446744073709551614", "9332165983064197000"],
        "fingerprints": ["2c0102030405060708090a0b0c0d0e0f", "f01112131415161718191a1b1c1d1e1f"], "spare": "5"})");
    expected.update({{"word20", little ? 0xa4a3a2a1u : 0xa1a2a3a4u},
                     {"keyindex", little ? 0xd2d1 : 0xd1d2},
                     {"word94", little ? 0xe2e1 : 0xe1e2}});
    for (std::string const key : {"masked", "606162636465666768696a6b6c6d6e6f707172737475767778797a7b7c7d7e7f80"}) {
        ASSERT_EQ(Run(std::string("show --json in") + (key == "masked" ? "" : " --show-keys")), 0);
        expected["key"] = key;
        expected.update({{"record", 1}, {"offset", "0"}, {"order", "network"}});
        ASSERT_EQ(Lines().size(), 2u);
        EXPECT_EQ(Lines()[0], expected);
        expected.update({{"record", 2}, {"offset", "160"}, {"order", little ? "host" : "network"}});
        EXPECT_EQ(Lines()[1], expected);
    }
    std::string const line = "2,1,2,72623859790382856,3544952156018063160,4702394921427289928,1364349780,1,,3,2,"
                             "[65,18446744073709551614,9332165983064197000],[,,\xf0]\n";
    ASSERT_EQ(Run("show --text in"), 0);
    EXPECT_EQ(out, line + line);
}

// One field of the middle one of three records is changed. The last one is found wherever the middle one ends.
TEST_F(Tool, NamesDamage) {
    Bytes const segment = Golden(kNetwork);
    SpelledRecord const object = Spell(Example(3, 3), true);
    struct {
        Bytes const& record;
        std::size_t offset;
        unsigned char value;
        std::string finding; // the first one
        std::size_t records = 3;
    } const rows[] = {
        {segment, 0, 2, "so-type 0 type error 514 2;", 2}, // no way to tell where it ends
        {segment, 3, 1, "so-flags 2 flags note 1 0;"},
        {segment, 7, 200, "so-recsize 4 recsize error 200 192;"},
        {segment, 4, 255, "so-recsize 4 recsize error 4278190272 192;"},
        {segment, 12, 255, "so-calculated 52 nfp error 34225520832 192;"},
        {segment, 47, 99, ""}, // a size may be any
        {segment, 89, 9, "so-calculated 52 nfp error 160 192;so-fptype 89 fptype error 9 3;"},
        {segment, kSize - 1, 5, "so-spare 184 spare note 5 0;"},
        {object.bytes, 4, 200, "do-recsize 4 recsize error "},
        {object.bytes, object.entries, 200, ""}, // a fingerprint is verify's business
        {object.bytes, object.entries + 32, 200, "segment-size 112 segments[0].size error "},
        {object.bytes, object.list + 8, 200, "do-list-checksum "},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.finding);
        Bytes middle = row.record;
        middle[row.offset] = row.value;
        Write("in", Golden(kHost) + middle + Golden(kHost));
        bool const bad = row.finding.find(" note ") == std::string::npos && !row.finding.empty();
        ASSERT_EQ(Run("validate --json in"), bad ? 1 : 0) << err;
        auto lines = Lines();
        json const total = lines.back();
        lines.pop_back();
        if (row.records == 2) { // the last line of the file is about the rest
            EXPECT_EQ(lines.back()["unread_bytes"], "288");
            EXPECT_EQ(total["unread_bytes"], "288");
            lines.pop_back();
        }
        ASSERT_EQ(lines.size(), row.records);
        EXPECT_EQ(FindingsOf(lines[1]).substr(0, row.finding.size()), row.finding);
        EXPECT_EQ(lines[1]["findings"].empty(), row.finding.empty());
        EXPECT_TRUE(lines[1]["valid"] == !bad && lines[0]["findings"].empty());
        EXPECT_EQ(lines[row.records - 1]["valid"], row.records == 3);
        EXPECT_TRUE(total["records"] == std::to_string(row.records) && total["files"] == "1");
        EXPECT_EQ(Run("validate --json --first in"), bad ? 1 : 0);
        EXPECT_EQ(Lines()[1]["findings"].size(), bad ? 1u : 0u);
        for (char const* const verb : {"show in", "digest in", "convert in --to host -o out", "validate --quiet in"}) {
            EXPECT_EQ(Run(verb), bad ? 1 : 0) << verb;
        }
        EXPECT_EQ(out + err, "");
    }
}

TEST_F(Tool, ConvertsAllOrNothing) {
    Write("in", Golden(kHost) + Golden(kNetwork));
    ASSERT_EQ(Run("convert in --to network -o out --json"), 0);
    EXPECT_EQ(Read("out"), Golden(kNetwork) + Golden(kNetwork));
    json expected = json::parse(R"({"file": "in", "out": "out", "order": "network", "records": "2", "bytes": "384"})");
    expected.update({{"schema", 1}, {"converted", kBig ? "0" : "1"}});
    EXPECT_EQ(json::parse(out), expected);
    ASSERT_EQ(Shell("chmod 640 in; ln -s in link; \"$T\" convert in --to host -o link; stat -c %a in"), 0);
    EXPECT_EQ(out, "link: 2 records, 384 bytes, in host order; " + std::string(kBig ? "2" : "1") + " converted\n640\n");
    EXPECT_EQ(Read("in"), Golden(kHost) + Golden(kHost));

    Bytes bad = Golden(kNetwork);
    bad[7] = 0;
    Write("in", Golden(kHost) + bad);
    ASSERT_EQ(Run("convert in --to network -o in"), 1);
    EXPECT_EQ(Read("in"), Golden(kHost) + bad);
    EXPECT_EQ(err,
              "crrecord: in: record 2 at byte 192: error so-recsize in recsize at byte 196: found 0, expected 192: "
              "Invalid SO record: recsize 0, size 192\n");
    EXPECT_EQ(Files(), "in link out ");
}

TEST_F(Tool, SaysWhyItCannotWork) {
    ASSERT_EQ(Shell("echo data >in; \"$T\" build in -o do; \"$T\" segments build in -o seg; cat do do >two; >empty"),
              0);
    struct {
        char const *arguments, *complaint;
    } const rows[] = {
        {"shw in", "no such verb or option: shw (try: crrecord --help)"},
        {"convert in -o out", "--to is required (try: crrecord convert --help)"},
        {"show --records 3:1 in",
         "--records: \"3:1\" is not N or FROM:TO, counted from 1, such as 3, 1:20, 21: or :20 (try: crrecord show "
         "--help)"},
        {"show --csv in in", "--csv reads one FILE, because its rows do not name the file"},
        {"segments build in -o out --container-size 1K",
         "a container of 1024 bytes cannot hold a segment of 131072: raise --container-size"},
        {"segments build seg -o out --first-container 4294967295 --segment-size 100 --container-size 100",
         "no container ids are left after 4294967295: choose larger containers or a first container before 4294967295"},
        {"build in -o out --cut content:",
         "--cut: found \"content:\", expected fixed, content or content:MIN:AVG:MAX with "
         "64 <= MIN <= AVG <= MAX <= 4M (try: crrecord build --help)"},
        {"segments build empty -o out", "empty: is empty, so it has no segments"},
        {"build in -o out --dotype 4", "--dotype: 4 not in {0,1,2,3,5} (try: crrecord build --help)"},
        {"build --task -1 in -o out",
         "--task: found \"-1\", expected a whole number of 0 to 18446744073709551615 (try: crrecord build --help)"},
        {"build in -o out --segment-size 2147483648", "--segment-size: found \"2147483648\", expected a number of "
                                                      "bytes of 1 to 2147483647, such as 65536 or 64K (try: "
                                                      "crrecord build --help)"},
        {"segments build in -o out --container-size 16E", "--container-size: found \"16E\", expected a number of bytes "
                                                          "of 1 to 18446744073709551615, such as 65536 or 64K "
                                                          "(try: crrecord segments build --help)"},
        {"validate in --dotype", "--dotype: expected a value after it (try: crrecord validate --help)"},
        {"live do --sparse 50 --sparse 50", "--sparse: expected only once (try: crrecord live --help)"},
        {"show --checksum do", "--checksum requires --serialized (try: crrecord show --help)"},
        {"convert do --to json --checksum -o out",
         "--checksum requires --serialized or --to serialized (try: crrecord convert --help)"},
        {"convert seg --to serialized --checksum -o out",
         "seg: is a segment record, whose exchange form has no checksum"},
        {"show --segments 2:1 in",
         "--segments: \"2:1\" is not N or FROM:TO, counted from 0, such as 2, 0:19, 20: or :19 (try: crrecord show "
         "--help)"},
        {"verify - -", "standard input can be either the record or the file"},
        {"convert two --to serialized -o out",
         "two: has more than one record, and an exchange form does not store its length"},
        {"verify two in", "two: has more than one record, expected one"},
        {"verify seg in", "seg: is a segment record, expected a DO record"},
        {"segments build in -o in", "in: is an input itself, which the records would replace"},
        {"annotate --reverse in -o in", "in: is an input itself, which the bytes would replace"},
        {"refs do --drop-inactive in -o ./in", "./in: is an input itself, which the records would replace"},
        {"map do -o do", "do: is an input itself, which the picture would replace"},
        {"redact - -o seg <seg", "seg: is an input itself, which the redacted records would replace"},
        {"redact seg --key - -o in <in", "in: is an input itself, which the redacted records would replace"},
        {"redact seg -o - >>seg", "standard output: is an input itself, which the redacted records would replace"},
        {"map - -o do <do", "do: is an input itself, which the picture would replace"},
        {"build - -o in <in", "in: is an input itself, which the record would replace"},
        {"segments build - -o in <in", "in: is an input itself, which the records would replace"},
        {"annotate --reverse - -o in <in", "in: is an input itself, which the bytes would replace"},
        {"refs do --drop-inactive - -o in <in", "in: is an input itself, which the records would replace"},
        {"segments build in -o none/out", "none/out: cannot create: No such file or directory"},
        {"segments build in -o .", ".: cannot create: Is a directory"},
        {"stats --json none", "none: cannot open: No such file or directory"},
        {"convert /proc/self/mem --to host -o out", "/proc/self/mem: cannot read: Input/output error"},
        {"show seg >/dev/full", "standard output: cannot write: No space left on device"},
        {"--version >/dev/full", "standard output: cannot write: No space left on device"},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.arguments);
        EXPECT_EQ(Run(row.arguments), 2);
        EXPECT_EQ(err + out, "crrecord: " + std::string(row.complaint) + "\n");
        EXPECT_EQ(Files(), "do empty in seg two ");
    }
    EXPECT_EQ(Run("verify in in"), 1); // not a record at all
    Write("in", Golden(kHost));
    EXPECT_EQ(Run("convert - --to host -o out <in >&-"), 2); // the output doesn't become standard output
    EXPECT_EQ(Read("out"), Golden(kHost));
    EXPECT_EQ(Run("validate none in"), 2); // and the others are still looked at
    EXPECT_EQ(out, "in: 1 record, 192 bytes: all valid\n");
}

// Without its own functions for OpenSSL, the command could crash when it is out of memory.
#ifdef CRRECORD_USES_CRYPTO_EARLY
TEST_F(Tool, EndsIfCryptoWasUsedBefore) {
    EXPECT_EQ(Run("--version"), 0);
    EXPECT_EQ(Shell("LD_PRELOAD='" CRRECORD_USES_CRYPTO_EARLY "' \"$T\" --version"), 2);
    EXPECT_NE(err.find("crrecord: a preloaded library has used OpenSSL"), std::string::npos) << err;
}
#endif

// A signal that was ignored when it began (here SIGUSR1) stays so; any other, and the same again while it is handled,
// ends it as it would end any process.
TEST_F(Tool, AnInterruptedBuildLeavesNothing) {
    for (int const signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE, SIGALRM, SIGXCPU}) {
        for (std::string const verb : {"segments build", "build", "convert --to host"}) {
            EXPECT_EQ(Shell("ulimit -c 0; echo former >out; rm -f in; mkfifo in; exec 3<>in; "
                            "env --default-signal --ignore-signal=USR1 \"$T\" " +
                            verb +
                            " in -o out & until ls -l /proc/$!/fd | grep -E 'deleted|crrecord-[0-9a-f]*.tmp'; do sleep "
                            "0.01; done; kill -USR1 $!; "
                            "for i in 1 2 3; do kill -" +
                            std::to_string(signal) + " $!; done; wait $!"),
                      128 + signal);
            EXPECT_EQ(Files() + String("out"), "in out former\n") << verb << signal;
        }
    }
}

TEST_F(Tool, AFullDiskCostsNoFile) {
    Bytes const object = Spell(Example(2, 3)).bytes;
    Bytes many;
    for (unsigned int i = 0; i < 100; ++i) {
        many = many + object;
    }
    for (std::string const verb :
         {"convert in --to network", "convert in --to json", "redact in", "map in", "refs in --add task:1",
          "annotate --reverse text", "build in --segment-size 9", "segments build in --segment-size 9"}) {
        Write("in", verb.starts_with("map") ? object : many);
        ASSERT_EQ(Shell("\"$T\" annotate in >text; cp in out"), 0);
        for (std::string const to : {"in", "out", "/dev/full"}) {
            EXPECT_EQ(Shell("ulimit -f 1; \"$T\" " + verb + " -o " + to), 2) << verb << to << err;
            EXPECT_EQ(Files(), "in out text ");
            EXPECT_TRUE(to == "in" || err.starts_with("crrecord: " + to + ": cannot write: ")) << err;
            EXPECT_TRUE(Read("in") == Read("out") && Read("in").size() > 100) << verb << to;
        }
    }
}

// Many records, and one that is larger than what is read at once, through a pipe.
TEST_F(Tool, RecordsLieAcrossBlocks) {
    for (Shape const shape : {kHost, kNetwork}) {
        Bytes large = Golden({shape.network, 2, 0, 0});
        large.insert(large.begin() + 96, 16 * 0x6060, 0xfe);
        Splice(large, 4, Spelled(large.size(), 4, shape.network));
        Splice(large, 52, Spelled(0x6060, 4, shape.network));
        Bytes all;
        for (unsigned int i = 0; i < 3000; ++i) {
            Bytes const record = Golden({shape.network, static_cast<unsigned char>(i % 4), 3, 1});
            all.insert(all.end(), record.begin(), record.end());
        }
        Write(shape.network ? "network" : "host", all + large + Golden(shape) + large);
    }
    for (std::string const to : {"host", "network"}) {
        ASSERT_EQ(Shell("cat " + to + " " + to + " >two; cat host network | \"$T\" convert - -o - --to " + to +
                        " | cmp - two"),
                  0);
    }
    ASSERT_EQ(Run("validate two"), 0);
    EXPECT_EQ(out.substr(0, 17), "two: 6006 records");
}

// Sizes and counts of 4 GiB are claimed where there are bytes, and where there are megabytes.
TEST_F(Tool, MemoryFollowsWhatIsThereNotWhatIsClaimed) {
    std::pair<Bytes, std::vector<std::size_t>> const records[] = {
        {Golden(kNetwork), {4, 12, 52}}, {Spell(Example(3, 3), true).bytes, {4, 0x38, 0x3c, 0x44}}};
    for (auto const& [record, fields] : records) {
        for (std::size_t const field : fields) {
            Bytes claim = record;
            Splice(claim, field, Bytes(4, 0xfe));
            Write("in", claim);
            for (char const* const verb : {"validate in", "show in", "digest in", "convert in --to host -o out"}) {
                EXPECT_EQ(Shell(kMemoryLimit + "\"$T\" " + verb), 1) << verb << field << err;
            }
            EXPECT_EQ(Shell(kMemoryLimit + "(cat in; head -c 8M /dev/zero) | \"$T\" validate --quiet"), 1) << err;
        }
    }
}

TEST_F(Tool, FileNamesOfAnyBytes) {
    std::string const name = "a\"\\\n\x01\xc3\xa4\xff";
    Write(name, {});
    ASSERT_EQ(Run("validate --json *"), 1);
    EXPECT_EQ(Lines()[0]["file"], "a\"\\\n\x01\xc3\xa4\xef\xbf\xbd");
    EXPECT_EQ(Lines()[0]["file_hex"], "61225c0a01c3a4ff");
    ASSERT_EQ(Run("show *"), 1);
    EXPECT_EQ(err, "crrecord: a\"\\??\xc3\xa4?: record 1 at byte 0: error so-length in length at byte 0: found 0, "
                   "expected 96: Invalid SO record: size 0, expected at least 96 (the input is empty)\n");
}

} // namespace
