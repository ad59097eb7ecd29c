// The command on segment records, and what holds for all verbs.

#include "tool/tool.h"

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
    struct {
        int fptype;
        char const *abc, *rest;
    } const rows[] = {
        {0, "900150983cd24fb0d6963f7d28e17f72", "c20ad4d76fe97759aa27a0c99bff6710"},
        {1, "a9993e364706816aba3e25717850c26c", "7b52009b64fd0a2a49e6d8a939753077"},
        {2, "ba7816bf8f01cfea414140de5dae2223", "6b51d431df5d7f141cbececcf79edf3d"},
        {3, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad",
         "6b51d431df5d7f141cbececcf79edf3dd861c3b4069f0b11661a3eefacbba918"},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.fptype);
        std::string const abc = BuiltRecord("40", "03", "352441c2", row.fptype, row.abc);
        Bytes const expected = FromHex(abc + abc + BuiltRecord("41", "02", "4f5344cd", row.fptype, row.rest));
        std::string const options = " --segment-size 3 --container-size 6 --fptype " + std::to_string(row.fptype);
        ASSERT_EQ(Run("segments build in -o out --json" + options), 0) << err;
        EXPECT_EQ(Read("out"), expected);
        json closing = json::parse(R"({"file": "in", "out": "out", "bytes": "8", "segments": "3", "containers": "2",
            "first_container": "64", "last_container": "65"})");
        closing.update({{"record_size", abc.size() / 2}, {"record_bytes", std::to_string(expected.size())}});
        EXPECT_EQ(json::parse(out), closing);
        ASSERT_EQ(Shell("cat in | \"$T\" segments build - -o -" + options), 0) << err;
        EXPECT_EQ(Text(out), expected);
    }
    std::string const million =
        BuiltRecord("40", "0f4240", "dc25bfbc", 3, "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
    Write("aaa", Bytes(2000000, 'a'));
    ASSERT_EQ(Run("segments build aaa -o out --segment-size 1000000"), 0) << err;
    EXPECT_EQ(Read("out"), FromHex(million + million));
    ASSERT_EQ(Shell("mkfifo pipe; cat pipe >copy & \"$T\" segments build aaa -o pipe --segment-size 1M; wait"), 0)
        << err;
    ASSERT_EQ(Shell("\"$T\" segments build aaa -o out --segment-size 1M; cmp out copy; test -p pipe"), 0) << out;
    ASSERT_EQ(Shell("rm aaa copy pipe; \"$T\" segments build in -o out"), 0);
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
    json expected = json::parse(R"({"file": "in", "kind": "segment", "valid": true, "type": 2, "flags": 2,
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
        expected.update({{"record", 2}, {"offset", "160"}, {"order", "host"}});
        EXPECT_EQ(Lines()[1], expected);
    }
    std::string const line = "2,1,2,72623859790382856,3544952156018063160,4702394921427289928,1364349780,1,,3,2,"
                             "[65,18446744073709551614,9332165983064197000],[,,\xf0]\n";
    ASSERT_EQ(Run("show --text in"), 0);
    EXPECT_EQ(out, line + line);
}

TEST_F(Tool, ShowsATable) {
    Write("in",
          FromHex(BuiltRecord("40", "03", "352441c2", 0, "900150983cd24fb0d6963f7d28e17f72")) + Golden({false, 1}));
    ASSERT_EQ(Shell("cat in in | \"$T\" show --records 2:3"), 0);
    EXPECT_EQ(out,
              "  record       at byte  order    stored in                  bytes  CRC       type         fingerprint\n"
              "       2           120  host     path 72623859790382856, file 3544952156018063160  4702394921427289928"
              "  51525354  SHA-1/128    2c0102030405060708090a0b0c0d0e0f and 1 more\n"
              "       3           280  network  container 64                   3  352441c2  MD5          "
              "900150983cd24fb0d6963f7d28e17f72\n\n"
              "2 records in 280 bytes, describing 4702394921427289931 bytes of segments\n");
}

// One field of the middle one of three records is changed. The last one is found wherever the middle one ends.
TEST_F(Tool, ValidateNamesWhatWasChanged) {
    struct {
        std::size_t offset;
        unsigned char value;
        std::vector<std::string> findings;
        std::size_t records = 3;
    } const rows[] = {
        {0, 2, {"so-type error 0 type 514 2"}, 2}, // no way to tell where it ends
        {3, 1, {"so-flags note 2 flags 1 0"}},
        {7, 0, {"so-recsize error 4 recsize 0 192"}},
        {7, 100, {"so-recsize error 4 recsize 100 192"}},
        {7, 200, {"so-recsize error 4 recsize 200 192"}},
        {4, 255, {"so-recsize error 4 recsize 4278190272 192"}},
        {15, 0, {"so-calculated error 52 nfp 168 192"}},
        {12, 255, {"so-calculated error 52 nfp 34225520832 192"}},
        {47, 99, {}}, // a size may be any
        {55, 1, {"so-calculated error 52 nfp 160 192"}},
        {55, 3, {"so-calculated error 52 nfp 224 192"}},
        {89, 9, {"so-calculated error 52 nfp 160 192", "so-fptype error 89 fptype 9 3"}},
        {91, 7, {"so-reserved note 91 reserved 7 0"}},
        {kSize - 1, 5, {"so-spare note 184 spare 5 0"}},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(testing::Message() << row.offset << " = " << int{row.value});
        Bytes middle = Golden(kNetwork);
        middle[row.offset] = row.value;
        Write("in", Golden(kHost) + middle + Golden(kHost));
        bool const bad = !row.findings.empty() && row.findings[0].find(" error ") != std::string::npos;
        ASSERT_EQ(Run("validate --json in"), bad ? 1 : 0) << err;
        auto const lines = Lines();
        ASSERT_EQ(lines.size(), row.records);
        std::vector<std::string> findings;
        for (json const& found : lines[1]["findings"]) {
            auto const text = [&](char const* member) { return " " + found[member].get<std::string>(); };
            findings.push_back(text("name").substr(1) + text("severity") + text("offset") + text("field") +
                               text("found") + text("expected"));
        }
        EXPECT_EQ(findings, row.findings);
        EXPECT_EQ(lines[1]["valid"], !bad);
        EXPECT_EQ(lines[0]["findings"], json::array());
        EXPECT_EQ(lines.back()["valid"], row.records == 3 || !bad);
        EXPECT_EQ(Run("validate --json --first in"), bad ? 1 : 0);
        EXPECT_EQ(Lines()[1]["findings"].size(), bad ? 1u : 0u);
        EXPECT_EQ(Run("show in"), bad ? 1 : 0);
        EXPECT_EQ(Run("validate --quiet in"), bad ? 1 : 0);
        EXPECT_EQ(out + err, "");
    }
}

TEST_F(Tool, ATruncatedStreamIsBadAndSaysWhere) {
    Bytes const whole = Golden(kNetwork) + Golden(kHost);
    for (std::size_t const size : {0u, 1u, 2u, 95u, 96u, 191u, 192u, 193u, 288u, 383u, 384u}) {
        SCOPED_TRACE(size);
        Write("in", Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
        std::size_t const record = size / kSize + (size == 0 || size % kSize != 0);
        bool const bad = size == 0 || size % kSize != 0;
        ASSERT_EQ(Run("validate --json in"), bad ? 1 : 0);
        json const last = Lines().back();
        EXPECT_EQ(last["record"], record);
        EXPECT_EQ(last["offset"], std::to_string((record - 1) * kSize));
        EXPECT_EQ(last["valid"], !bad);
        if (bad) {
            EXPECT_EQ(last["findings"][0]["name"], size % kSize < 96 ? "so-length" : "so-recsize");
        }
        EXPECT_EQ(Run("show in"), bad ? 1 : 0);
        EXPECT_EQ(Run("convert in --to host -o out"), bad ? 1 : 0);
        EXPECT_EQ(Files(), bad ? "in " : "in out ");
        Shell("rm -f out");
    }
}

TEST_F(Tool, ConvertsAllOrNothing) {
    Write("in", Golden(kHost) + Golden(kNetwork));
    ASSERT_EQ(Run("convert in --to network -o out --json"), 0);
    EXPECT_EQ(Read("out"), Golden(kNetwork) + Golden(kNetwork));
    EXPECT_EQ(json::parse(out), json::parse(R"({"file": "in", "out": "out", "order": "network", "records": 2,
        "converted": 1, "bytes": "384"})"));
    ASSERT_EQ(Shell("chmod 640 in; ln -s in link; cat in | \"$T\" convert - --to host -o -"), 0);
    EXPECT_EQ(Text(out), Golden(kHost) + Golden(kHost));
    EXPECT_EQ(err, "");
    ASSERT_EQ(Run("convert in --to host -o link; stat -c %a in"), 0);
    EXPECT_EQ(out, "link: 2 records, 384 bytes, in host order; 1 converted\n640\n");
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
    Write("in", Golden(kHost));
    Write("empty", {});
    struct {
        char const *arguments, *complaint;
    } const rows[] = {
        {"", "A subcommand is required (try: crrecord --help)"},
        {"shw in", "no such verb or option: shw (try: crrecord --help)"},
        {"convert in -o out", "--to is required (try: crrecord convert --help)"},
        {"show --records 3:1 in",
         "--records: \"3:1\" is not FROM:TO, such as 1:20, 21: or :20 (try: crrecord show --help)"},
        {"segments build in -o out --fptype 4",
         "--fptype: Value 4 not in range 0 to 3 (try: crrecord segments build --help)"},
        {"segments build in -o out --container-size 1K",
         "a container of 1024 bytes cannot hold a segment of 131072: raise --container-size"},
        {"segments build in -o out --first-container 4294967295 --segment-size 100 --container-size 100",
         "no container ids are left behind 4294967295: take larger containers or an earlier first one than 4294967295"},
        {"segments build empty -o out", "empty: is empty, so it has no segments"},
        {"segments build in -o in", "in: is FILE itself, which the records would replace"},
        {"segments build in -o none/out", "none/out: cannot create: No such file or directory"},
        {"segments build in -o .", ".: cannot create: Is a directory"},
        {"validate none", "none: cannot open: No such file or directory"},
        {"validate .", ".: cannot read: Is a directory"},
        {"convert /proc/self/mem --to host -o out", "/proc/self/mem: cannot read: Input/output error"},
        {"show in >/dev/full", "standard output: cannot write: No space left on device"},
        {"show --text in >/dev/full", "standard output: cannot write: No space left on device"},
        {"show in >&-", "standard output: cannot write: Bad file descriptor"},
        {"--version >/dev/full", "standard output: cannot write: No space left on device"},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.arguments);
        EXPECT_EQ(Run(row.arguments), 2);
        EXPECT_EQ(err, "crrecord: " + std::string(row.complaint) + "\n");
        EXPECT_EQ(Files(), "empty in ");
    }
    EXPECT_EQ(Read("in"), Golden(kHost));
    EXPECT_EQ(Shell("ulimit -f 8; \"$T\" segments build in -o out --segment-size 1"), 2);
    EXPECT_EQ(err, "crrecord: out: cannot write: File too large\n");
    EXPECT_EQ(Files(), "empty in ");
    EXPECT_EQ(Run("convert - --to host -o out <in >&-"), 2); // the output doesn't become standard output
    EXPECT_EQ(Read("out"), Golden(kHost));
    EXPECT_EQ(Run("validate none in"), 2); // and the others are still looked at
    EXPECT_EQ(out, "in: 1 record, 192 bytes: all valid\n");
}

TEST_F(Tool, AnInterruptedBuildLeavesNothing) {
    EXPECT_EQ(Shell("mkfifo in; exec 3<>in; \"$T\" segments build in -o out & "
                    "until ls .crrecord-*; do sleep 0.01; done; kill $!; wait $!"),
              128 + 15);
    EXPECT_EQ(Files(), "in ");
}

// Many records, and one that is larger than what is read at once, through a pipe.
TEST_F(Tool, RecordsLieAcrossBlocks) {
    Bytes host, network;
    for (Shape const shape : {kHost, kNetwork}) {
        Bytes large = Golden({shape.network, 2, 0, 0});
        large.insert(large.begin() + 96, 16 * 0x6060, 0xfe);
        for (std::size_t const at : {4u, 52u}) { // 0x060668 bytes, 0x6060 fingerprints
            Bytes digits = FromHex(at == 4 ? "00060668" : "00006060");
            if (!shape.network && std::endian::native == std::endian::little) {
                std::reverse(digits.begin(), digits.end());
            }
            std::copy(digits.begin(), digits.end(), &large[at]);
        }
        Bytes& all = shape.network ? network : host;
        for (unsigned int i = 0; i < 3000; ++i) {
            Bytes const record = Golden({shape.network, static_cast<unsigned char>(i % 4), 3, 1});
            all.insert(all.end(), record.begin(), record.end());
        }
        all = all + large + Golden(shape) + large;
    }
    Write("host", host);
    Write("network", network);
    ASSERT_EQ(Shell("cat host network | \"$T\" convert - --to host -o out && cat host host | cmp - out"), 0) << err;
    ASSERT_EQ(Shell("cat host network | \"$T\" convert - --to network -o out && cat network network | cmp - out"), 0);
    ASSERT_EQ(Run("validate out"), 0);
    EXPECT_EQ(out, "out: 6006 records, " + std::to_string(2 * host.size()) + " bytes: all valid\n");
}

// A record of 4 GiB is claimed where there are 192 bytes, and where there are megabytes.
TEST_F(Tool, MemoryFollowsWhatIsThereNotWhatIsClaimed) {
    Bytes claim = Golden(kNetwork);
    std::fill_n(claim.begin() + 4, 4, 0xff);
    Write("in", claim);
    ASSERT_EQ(Shell(kMemoryLimit + "\"$T\" validate in"), 1);
    EXPECT_EQ(out, "in: record 1 at byte 0: error so-recsize in recsize at byte 4: found 4294967295, expected 192: "
                   "Invalid SO record: recsize 4294967295, size 192\nin: 1 record, 192 bytes: 1 bad, 0 valid\n");
    std::fill_n(claim.begin() + 12, 4, 0xfe);
    Write("in", claim);
    ASSERT_EQ(Shell(kMemoryLimit + "(cat in; head -c 8M /dev/zero) | \"$T\" validate --first"), 1);
    EXPECT_EQ(out.substr(0, 70), "-: record 1 at byte 0: error so-recsize in recsize at byte 4: found 42");
}

TEST_F(Tool, FileNamesOfAnyBytes) {
    std::string const name = "a\"\\\n\x01\xc3\xa4\xff";
    Write(name, {});
    ASSERT_EQ(Run("validate --json *"), 1);
    EXPECT_EQ(Lines()[0]["file"], "a\"\\\n\x01\xc3\xa4\xef\xbf\xbd");
    ASSERT_EQ(Run("show *"), 1);
    EXPECT_EQ(err, "crrecord: a\"\\??\xc3\xa4\xff: record 1 at byte 0: error so-length in length at byte 0: found 0, "
                   "expected 96: Invalid SO record: size 0, expected at least 96 (the input is empty)\n");
}

TEST_F(Tool, EveryVerbHasHelpWithAnExample) {
    for (std::string const verb :
         {"build", "segments", "segments build", "show", "validate", "convert", "digest", "verify"}) {
        EXPECT_EQ(Run(verb + " --help"), 0);
        EXPECT_NE(out.find("Example:\n  crrecord " + verb), std::string::npos) << out;
    }
}

} // namespace
