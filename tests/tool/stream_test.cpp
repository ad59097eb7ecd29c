// Streams of records with damage: where the next record is found, and what is reported of the bytes in between.

#include "tool/tool.h"

namespace {

constexpr Shape kShape{true, 3};
constexpr std::size_t kRecordSize = 192;

Bytes Good() {
    return Golden(kShape);
}

// A record whose size claims this number of bytes.
Bytes Claiming(std::uint32_t size) {
    Bytes record = Good();
    for (unsigned int i = 0; i < 4; ++i) {
        record[4 + i] = static_cast<unsigned char>(size >> 8 * (3 - i));
    }
    return record;
}

// Both numbers that disagree may be wrong, so neither may cost memory: here the size, and the number of task ids.
TEST_F(Tool, SizesThatDisagreeCostNoMemory) {
    Bytes counted = Good();
    counted[12] = 0x1f; // 8 bytes for each task id
    for (Bytes const& bad : {Claiming(0xfffffffe), counted}) {
        Write("in", bad + Text("junk"));
        for (char const* const verb : {"validate --quiet", "validate --quiet --scan", "show", "digest"}) {
            EXPECT_EQ(Shell(kMemoryLimit + "(cat in; head -c 200M /dev/zero) | \"$T\" " + verb), 1) << verb << err;
        }
    }
    Write("in", Claiming(0xfffffffe) + Good());
    ASSERT_EQ(Shell("cat in | \"$T\" validate --json"), 1);
    EXPECT_EQ(Lines().at(1)["offset"], "192");
    // The farther end is passed in blocks, and the record after it is found.
    Write("in", Claiming(1000000) + Bytes(1000000 - kRecordSize, 1) + Good());
    ASSERT_EQ(Shell(kMemoryLimit + "cat in | \"$T\" validate"), 1);
    EXPECT_EQ(out, "-: record 1 at byte 0: error so-recsize in recsize at byte 4: found 1000000, expected 192: Invalid "
                   "SO record: recsize 1000000, size 192 (its end is in doubt: only these bytes are checked)\n"
                   "-: 2 records, 192 bytes: 1 bad, 1 valid, 1000000 bytes skipped\n");
    EXPECT_EQ(Run("annotate in >text; \"$T\" annotate --reverse text -o again; cmp in again"), 0) << out;
}

// A sparse input of gigabytes: JSON ends at a NUL, an exchange form at the size that its counts give.
TEST_F(Tool, HolesCostNoMemory) {
    ASSERT_EQ(Shell("echo data >data; \"$T\" build data -o do; \"$T\" convert do --to serialized -o form; "
                    "printf '{\"schema\":' >json; truncate -s 3G form json"),
              0);
    EXPECT_EQ(Shell(kMemoryLimit + "\"$T\" convert json --to host -o -"), 1) << err;
    EXPECT_NE(err.find("json: line 1 at byte "), std::string::npos) << err;
    EXPECT_EQ(Shell(kMemoryLimit + "\"$T\" validate --serialized --dotype 3 --fptype 3 form"), 1) << err;
    EXPECT_NE(out.find(" bytes not read\n"), std::string::npos) << out;
}

TEST_F(Tool, ReportsWhatItDoesNotRead) {
    Write("in", Good() + Bytes(1000, 7) + Good());
    ASSERT_EQ(Run("validate in"), 1);
    EXPECT_NE(out.find("\nin: 2 records, 288 bytes: 1 bad, 1 valid, 1096 bytes not read\n"), std::string::npos) << out;
    EXPECT_EQ(err, "crrecord: in: 1096 bytes from byte 288 to the end not read\n");
    ASSERT_EQ(Shell("(cat in; head -c 1M /dev/zero) | \"$T\" validate --json"), 1);
    EXPECT_EQ(Lines().at(2), json::parse(R"({"schema": 1, "file": "-", "offset": "288", "unread_bytes": null})"));
    EXPECT_EQ(Lines().back()["unread_bytes"], nullptr);
    ASSERT_EQ(Run("stats --json in"), 1);
    EXPECT_EQ(Lines().back()["unread_bytes"], "1096");
}

// Damage in the middle of three records. The scan finds the first record after it, and not what only looks like one.
TEST_F(Tool, ScanFindsTheNextRecord) {
    Bytes const object = Spell(Example(3, 3), true).bytes;
    Bytes const good = Good();
    Bytes invalid = good;
    invalid[89] = 9; // an unknown fingerprint type
    Bytes zeros = Good();
    std::fill(zeros.begin(), zeros.begin() + 100, 0);
    struct {
        char const* damage;
        Bytes bytes;
        std::size_t skipped; // of them, from the first on
    } const rows[] = {
        {"zeros", zeros, kRecordSize},
        {"one byte", Text("x"), 1},
        {"the start of a type", Bytes{0}, 1},
        {"a long gap", Bytes(700000, 2), 700000},
        {"a record without its end", Bytes(object.begin(), object.end() - 60), object.size() - 60},
        {"a size beyond the end", Claiming(0xfffffffe) + Text("x"), kRecordSize + 1},
        {"heads without records", Bytes(20, 3) + Bytes(good.begin(), good.begin() + 12), 32},
        {"an invalid record in a gap", Text("abc") + invalid, 3 + kRecordSize},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.damage);
        Write("in", Good() + row.bytes + object + Good());
        std::string const skipped = "skipped bytes 192 to " + std::to_string(kRecordSize + row.skipped - 1) + " (" +
                                    std::to_string(row.skipped) + ")\n";
        for (std::string const from : {"in", "- <in", "<(cat in)"}) {
            ASSERT_EQ(Shell("exec bash -c \"'$T' validate --scan " + from + "\""), 1);
            EXPECT_NE(err.find(skipped), std::string::npos) << out << err;
            EXPECT_NE(out.find(" 1 bad, 3 valid, " + std::to_string(row.skipped) + " byte"), std::string::npos) << out;
        }
        ASSERT_EQ(Run("extract --scan --good in -o saved"), 1);
        EXPECT_EQ(Read("saved"), Good() + object + Good());
        ASSERT_EQ(Run("extract --scan in -o all"), 1);
        EXPECT_EQ(Read("all"), Read("in"));
        ASSERT_EQ(Run("show --scan --json in"), 1);
        EXPECT_EQ(Lines().at(2)["skipped_bytes"], std::to_string(row.skipped));
        for (char const* const verb : {"digest", "refs", "stats", "annotate", "live", "freed --reference task:1",
                                       "lost --container 1", "recall"}) {
            EXPECT_EQ(Run(std::string(verb) + " --scan in"), 1);
            EXPECT_NE(err.find(skipped), std::string::npos) << verb << err;
            EXPECT_NE(err.find("skipped") < err.find(": record "), verb != std::string_view("annotate")) << verb << err;
        }
    }
    Write("in", Good() + Good());
    EXPECT_EQ(Run("validate --scan in") + Shell("cat in | \"$T\" validate --scan"), 0) << out;
    EXPECT_EQ(err, "");
}

// Several batches of records with bad ones, large ones, one that threads do not get, and damage between them; then one
// of good records to a bad one. Output, messages, their order and the status do not depend on the number of threads.
TEST_F(Tool, JobsPrintTheSame) {
    Bytes const object = Spell(Example(3, 3), true).bytes, host = Spell(Example(5, 1), false).bytes;
    Bytes invalid = Good();
    invalid[89] = 9; // an unknown fingerprint type
    RecordValues many{.dotype = 2, .fptype = 3};
    many.segments.assign(40000, {Bytes(32, 1), 5, 0, 64});
    many.size = 200000;
    Bytes batch, mixed, good;
    for (int i = 0; i < 400; ++i) {
        batch = batch + object + Good() + host + Golden({false, 3});
    }
    good = batch + Spell(many, true).bytes + Spell(many, false).bytes + batch + batch;
    many.segments.assign(100000, {Bytes(32, 1), 5, 0, 64});
    many.size = 500000;
    good = good + Spell(many, true).bytes + batch;
    mixed = good + invalid + batch + Bytes(700, 2) + Claiming(1000000) + batch + Text("junk") + batch + invalid;
    Write("mixed", mixed);
    Write("good", good + invalid + batch);
    Write("key", Bytes(16, 7));
    for (std::string const verb :
         {"validate mixed", "validate --scan --json mixed good", "stats mixed", "stats --unique --scan --json mixed",
          "digest --scan mixed", "digest --json mixed none good", "annotate --scan mixed", "annotate --json mixed",
          "convert good --to host -o -", "convert --scan mixed --to json -o -", "redact good --key key -o -",
          "redact --scan none mixed good --key key -o -"}) {
        std::string const messages = verb.ends_with(" -o -") ? "err" : "&1";
        ASSERT_EQ(Shell("for i in 1 2 3; do \"$T\" " + verb + " --jobs $i >out$i 2>" + messages +
                        "; (echo $?; cat err) >>out$i; done; cmp out1 out2 && cmp out1 out3"),
                  0)
            << verb << out;
        EXPECT_GT(std::filesystem::file_size(PathOf("out1")), 300u) << verb;
    }
    // A message comes after the lines of the records before it.
    Write("damaged", Good() + Text("junk") + Good());
    ASSERT_EQ(Shell("\"$T\" annotate --scan damaged 2>&1"), 1);
    EXPECT_LT(out.find("record 2 at byte 192"), out.find("skipped bytes 192 to 195 (4)"));
    EXPECT_LT(out.find("skipped bytes 192 to 195 (4)"), out.find("record 3 at byte 196"));
    // A thread that writes to a closed pipe ends the process, as the calling thread does.
    EXPECT_EQ(
        Shell("exec bash -c \"'$T' digest good good good good --jobs 2 | head -c 1 >one; exit \\${PIPESTATUS[0]}\""),
        128 + SIGPIPE);
    EXPECT_EQ(Shell("exec bash -c \"trap '' PIPE; '$T' digest good good good good --jobs 2 | head -c 1 >one; "
                    "exit \\${PIPESTATUS[0]}\""),
              2);
    EXPECT_NE(err.find("crrecord: standard output: cannot write: Broken pipe\n"), std::string::npos) << err;
    EXPECT_EQ(Run("convert good --to network -o new --jobs 2"), 1);
    EXPECT_EQ(Run("validate --jobs 0 good") + Run("validate --jobs 257 good"), 4);
    EXPECT_EQ(Files().find("new"), std::string::npos);
}

// Large records do not pile up: their bytes in all batches are limited.
TEST_F(Tool, ManyLargeRecordsCostLittleMemory) {
    RecordValues many{.dotype = 2, .fptype = 3};
    many.segments.assign(47000, {Bytes(32, 1), 5, 0, 64});
    many.size = 235000;
    Write("one", Spell(many, true).bytes);
    for (std::string const verb :
         {"digest -", "convert - --to host -o -", "redact - -o -", "convert - --to json -o -"}) {
        EXPECT_EQ(Shell(kMemoryLimit + "for i in 1 2 3 4 5 6 7 8; do cat one one one one; done | \"$T\" " + verb +
                        " --jobs 2"),
                  0)
            << verb << err;
    }
}

// What verbs write with --scan lacks what is damaged: never silently, and never in place of the only copy.
TEST_F(Tool, ScanOmitsDamageFromWhatIsWritten) {
    Bytes const object = Spell(Example(3, 3), true).bytes;
    Bytes invalid = Good();
    invalid[89] = 9; // an unknown fingerprint type
    Write("in", Good() + Text("junk") + object + invalid + Good());
    Write("junk", Text("junk"));
    for (std::string const verb : {"convert in --to network", "redact in", "refs in --add task:1"}) {
        ASSERT_EQ(Run(verb + " --scan -o out"), 1) << err;
        EXPECT_NE(err.find("in: skipped bytes 192 to 195 (4)\n"), std::string::npos) << err;
        EXPECT_NE(err.find("in: record 4 at byte "), std::string::npos) << err;
        EXPECT_TRUE(out.ends_with("; 2 bad, omitted\n")) << out;
        EXPECT_TRUE(!verb.starts_with("convert") || Read("out") == Good() + object + Good());
        ASSERT_EQ(Run("validate out"), 0) << verb << out;
        EXPECT_EQ(out.substr(0, 14), "out: 3 records") << verb;
        ASSERT_EQ(Run(verb + " --scan -o in"), 2) << verb;
        EXPECT_EQ(Read("in"), Good() + Text("junk") + object + invalid + Good());
        std::string const none = "junk" + verb.substr(verb.find(" in") + 3);
        EXPECT_EQ(Run(verb.substr(0, verb.find(" in") + 1) + none + " --scan -o none"), 1) << verb;
    }
    EXPECT_EQ(Run("convert in --to serialized --scan -o none"), 2);
    ASSERT_EQ(Run("refs in --add task:4711 --scan --dry-run"), 1);
    EXPECT_NE(out.find("would add task:4711"), std::string::npos) << out;
    // Verbs on one record.
    ASSERT_EQ(Shell("echo data >data; \"$T\" build data -o do --segments-out seg --names idx; cat junk do >damaged; "
                    "cat junk seg >known; echo data >copy"),
              0);
    EXPECT_EQ(Run("diff damaged do"), 1);
    EXPECT_EQ(out, "");
    EXPECT_EQ(Run("diff --scan damaged do"), 1);
    EXPECT_TRUE(out.ends_with("damaged and do: the same\n")) << out;
    EXPECT_EQ(Run("verify --scan damaged data"), 1);
    EXPECT_EQ(out.find("data: 1 segment, 5 bytes: matches the record\n"), 0u) << out << err;
    EXPECT_EQ(Run("verify --scan --stamp damaged data -o damaged") + Run("diff --scan damaged in"), 4) << err;
    EXPECT_EQ(Shell("\"$T\" map --scan damaged -o one.svg; \"$T\" map do -o two.svg; sed -i s/damaged/do/ one.svg; "
                    "cmp one.svg two.svg"),
              0);
    EXPECT_EQ(Run("build copy -o again --known known"), 1);
    EXPECT_NE(out.find(": 1 new of 5 bytes"), std::string::npos) << out;
    EXPECT_EQ(Run("build copy -o again --known known --scan"), 1);
    EXPECT_NE(out.find(": 0 new of 0 bytes"), std::string::npos) << out;
    EXPECT_EQ(Files().find("none"), std::string::npos) << Files();
}

TEST_F(Tool, DirectOutputKeepsGoodRecordsBeforeABadOne) {
    Bytes const object = Spell(Example(3, 3), true).bytes;
    Write("in", object + object + Text("bad"));
    for (std::string const verb : {"convert in --to network", "redact in", "refs in --add task:1"}) {
        ASSERT_EQ(Run(verb + " -o - >out"), 1);
        ASSERT_EQ(Run("validate out"), 0) << verb << out;
        EXPECT_NE(out.find("out: 2 records"), std::string::npos) << verb << out;
        ASSERT_EQ(Run(verb + " -o new"), 1);
        EXPECT_EQ(Files(), "in out ");
    }
    EXPECT_EQ(Shell("\"$T\" convert in --to network -o - | cmp -n " + std::to_string(2 * object.size()) + " - in"), 0);
}

// The input changes while the output waits for its reader. What precedes this failure is written.
TEST_F(Tool, FailuresKeepTheOutputBeforeThem) {
    Bytes const object = Spell(Example(3, 3), true).bytes;
    Bytes many;
    for (int i = 0; i < 20000; ++i) {
        many.insert(many.end(), object.begin(), object.end());
    }
    for (std::string const verb : {"extract -o - in", "refs --add task:4711 --dry-run in"}) {
        Write("in", many);
        EXPECT_EQ(Shell("exec bash -c \"'$T' " + verb +
                        " | (head -c 1; touch -d 2000-01-01 in; cat) >out; exit \\${PIPESTATUS[0]}\""),
                  2);
        EXPECT_EQ(err, "crrecord: in: file changed while it was read\n");
        Bytes const written = Read("out");
        EXPECT_TRUE(verb.starts_with("refs") ? std::count(written.begin(), written.end(), '\n') == 20000
                                             : written == many)
            << verb << written.size();
    }
}

TEST_F(Tool, RefsPassesSegmentRecordsUnchanged) {
    Bytes const object = Spell(Example(3, 3), true).bytes;
    Write("in", Good() + object + Golden({false, 3}));
    ASSERT_EQ(Run("refs in --add task:4711 -o out"), 0) << err;
    EXPECT_TRUE(out.ends_with("; 2 segment records unchanged\n")) << out;
    ASSERT_EQ(Run("extract out --records 1,3 -o segments"), 0);
    EXPECT_EQ(Read("segments"), Good() + Golden({false, 3}));
    ASSERT_EQ(Run("refs out"), 0);
    EXPECT_NE(out.find("record 2: task:4711\n"), std::string::npos) << out;
}

TEST_F(Tool, ExtractsRecordsUnchanged) {
    std::vector<Bytes> records;
    Bytes all, odd;
    for (unsigned char i = 0; i < 200; ++i) {
        records.push_back(Golden({i % 3 == 0, 3}));
        records.back()[90] = i; // in the key index
        all = all + records.back();
        odd = i % 2 == 0 ? odd + records.back() : odd;
    }
    Write("in", all);
    ASSERT_EQ(Run("extract in -o out"), 0);
    EXPECT_EQ(Read("out"), all);
    ASSERT_EQ(Run("extract --records 7:8,3,2:3,200: in -o out --json"), 0) << err;
    EXPECT_EQ(Read("out"), records[1] + records[2] + records[6] + records[7] + records[199]);
    EXPECT_EQ(Lines().at(0)["records"], "5");
    ASSERT_EQ(Shell("seq 199 -2 1 | \"$T\" extract --records-from - in -o out"), 0);
    EXPECT_EQ(Read("out"), odd);
    EXPECT_EQ(Shell("echo 0 | \"$T\" extract --records-from - in -o out"), 2) << err;
    // The records before a number that the file does not have are written.
    EXPECT_EQ(
        Shell("n=$(\"$T\" extract in -o - | wc -c) && m=$(\"$T\" extract --records 1:200,9000 in -o - | wc -c) && "
              "[ \"$n\" = \"$m\" ]"),
        0)
        << err;
    ASSERT_EQ(Shell("\"$T\" extract --records-from /dev/null in -o out"), 0);
    EXPECT_EQ(Read("out"), Bytes());
    ASSERT_EQ(Run("extract --sample 50% in -o half; \"$T\" extract --sample 50% in -o again; cmp half again"), 0);
    EXPECT_TRUE(Read("half").size() > 60 * kRecordSize && Read("half").size() < 140 * kRecordSize)
        << Read("half").size();
    for (char const* const wrong : {"--records 201", "--records 0", "--records 3,", "--sample 5", "--sample 101%"}) {
        EXPECT_EQ(Run(std::string("extract in -o none ") + wrong), 2) << wrong;
    }
    EXPECT_EQ(Run("extract in -o in"), 2);
    EXPECT_EQ(Files(), "again half in out ");
    EXPECT_EQ(Read("in"), all);
}

} // namespace
