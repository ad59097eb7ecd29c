// Inputs that another process changes while the command reads them.

#include "tool/tool.h"

#include "json/reader.h"

#include <csignal>
#include <thread>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/time.h>

namespace {

// One byte, and the bits of it that change.
struct Flip {
    std::size_t offset;
    unsigned char bits;
};

// Repeatedly changes each byte and changes it back, in a file in memory that all processes share.
class Flipper {
public:
    Flipper(unsigned char* bytes, std::vector<Flip> flips)
        : thread_([bytes, flips = std::move(flips)](std::stop_token const& stop) {
              auto* const shared = static_cast<unsigned char volatile*>(bytes);
              while (!stop.stop_requested()) {
                  for (Flip const& flip : flips) {
                      unsigned char const former = shared[flip.offset];
                      shared[flip.offset] = former ^ flip.bits;
                      shared[flip.offset] = former;
                  }
              }
          }) {}

private:
    std::jthread thread_;
};

class ChangingInput : public Tool {
protected:
    // Runs the command with each line of arguments, for a second, while bytes of the file "in" change. It must always
    // exit with status 0, 1 or 2.
    void RunWhileChanging(std::vector<Flip> flips, std::vector<std::string> const& lines) {
        std::string script = "export ASAN_OPTIONS=exitcode=99; ";
        for (std::string const& line : lines) {
            script += "$T " + line + " >/dev/null 2>.log; case $? in [012]) ;; *) echo $?: " + line +
                      " >>.crashed; grep -F Sanitizer .log >>.crashed;; esac; ";
        }
        int const file = open(PathOf("in").c_str(), O_RDWR);
        std::size_t const size = std::filesystem::file_size(PathOf("in"));
        void* const shared = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        ASSERT_NE(shared, MAP_FAILED);
        {
            Flipper const flipper(static_cast<unsigned char*>(shared), std::move(flips));
            auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
            for (int runs = 0; runs < 100 && std::chrono::steady_clock::now() < end; ++runs) {
                Shell(script);
            }
        }
        EXPECT_EQ(String(".crashed"), "");
        munmap(shared, size);
        close(file);
    }
};

// The byte that makes a 32-bit count of a record millions larger.
Flip Count(bool network, std::size_t record, std::size_t field) {
    return {record + field + (network || kBig ? 1 : 2), 0x7f};
}

std::vector<std::string> const kForAllKinds = {"show in",
                                               "show --json in",
                                               "show --text in",
                                               "validate --json in",
                                               "annotate in",
                                               "annotate --json in",
                                               "digest in",
                                               "stats --unique in",
                                               "lost --container 64 in",
                                               "live --memory 1M in",
                                               "redact in -o out",
                                               "convert in --to host -o out",
                                               "convert in --to network -o out",
                                               "convert in --to json -o out",
                                               "refs in",
                                               "refs in --add task:1 -o out"};

TEST_F(ChangingInput, RecordsCrashNoVerb) {
    struct {
        bool isObject;
        std::vector<std::size_t> counts;
        Flip type;
    } const kinds[] = {
        {false,
         {offsetof(_SegmentDBRecord, nfp), offsetof(_SegmentDBRecord, ntaskids), offsetof(_SegmentDBRecord, recsize)},
         {offsetof(_SegmentDBRecord, fptype), 2}},
        {true,
         {offsetof(DORecordHeader, nfp), offsetof(DORecordHeader, nudcid), offsetof(DORecordHeader, ntaskid),
          offsetof(DORecordHeader, trefssize), offsetof(DORecordHeader, recsize)},
         {offsetof(DORecordHeader, dotype), 3}}};
    for (auto const& [isObject, counts, type] : kinds) {
        Bytes all;
        std::vector<Flip> flips;
        for (bool const network : {false, true, false, true}) { // few records, so that each byte changes often
            for (std::size_t const field : counts) {
                flips.push_back(Count(network, all.size(), field));
            }
            flips.push_back({all.size() + type.offset, type.bits});
            all = all + (isObject ? Spell(Example(3, 3), network).bytes : Golden({network, 1}));
        }
        Write("in", all);
        RunWhileChanging(flips, kForAllKinds);
    }
}

// Verbs that read one DO record, its form, or the data that it describes.
TEST_F(ChangingInput, OneRecordAndItsDataCrashNoVerb) {
    for (bool const network : {false, true}) {
        SpelledRecord const record = Spell(Example(3, 3), network);
        std::vector<Flip> flips;
        for (std::size_t const field :
             {offsetof(DORecordHeader, nfp), offsetof(DORecordHeader, nudcid), offsetof(DORecordHeader, trefssize)}) {
            flips.push_back(Count(network, 0, field));
        }
        flips.push_back({record.list + 4 + (network || kBig ? 1 : 2), 0x7f}); // the count of the list
        Write("in", record.bytes);
        Write("good", record.bytes);
        RunWhileChanging(flips, {"map in -o out", "diff in good", "diff good in", "verify in good", "verify good in",
                                 "convert in --to serialized -o out", "build in -o out --segment-size 64",
                                 "segments build in -o out --segment-size 64"});
    }
    std::string const type = " in --serialized --dotype 3 --fptype 3";
    ASSERT_EQ(Run("convert good --to serialized -o in"), 0) << err;
    RunWhileChanging({{1, 0x7f}, {2, 0x7f}, {5, 0x7f}, {9, 0x7f}},
                     {"show" + type, "validate" + type, "digest" + type, "stats" + type, "annotate" + type,
                      "redact -o out" + type, "convert --to host -o out" + type});
}

Bytes ManySegments(unsigned int count) {
    RecordValues values{.dotype = 3};
    for (unsigned int i = 0; i < count; ++i, values.size += 3) {
        values.segments.push_back({Bytes(16), 3, values.size, 64 + i});
    }
    return Spell(values).bytes;
}

// In host order.
Bytes ManyTasks(unsigned int count) {
    Bytes record = Golden({false, 3, 0, 0});
    record.insert(record.begin() + CR_SO_FIXED_SIZE, std::size_t{8} * count, 7);
    Splice(record, 4, Spelled(record.size(), 4, false));
    Splice(record, 12, Spelled(count, 4, false));
    return record;
}

// A comma in the middle of a long list of objects, or else of texts, which changes into the list's end.
Flip ListEnd(std::string const& line) {
    std::size_t const objects = line.find("},{", line.size() / 2);
    return {1 + (objects != line.npos ? objects : line.find("\",\"", line.size() / 2)), ',' ^ ']'};
}

// A list seems to end in its middle when elements are counted, and goes on when they are placed.
TEST_F(ChangingInput, LinesOfTextCrashNoVerb) {
    Write("record", ManyTasks(2000));
    ASSERT_EQ(Run("convert record --to json -o in"), 0);
    RunWhileChanging({ListEnd(String("in"))}, {"convert in --to host -o out", "convert in --to json -o out"});
    ASSERT_EQ(Run("annotate record >in"), 0);
    RunWhileChanging({{9, 0x40}, {30, 0x40}, {String("in").find('\n'), '\n' ^ ' '}}, {"annotate --reverse in -o out"});
}

// The byte that a signal changes in the line of the next test.
char volatile* lineEnd = nullptr;

// The reader writes no more elements than it counted. A timer changes the line many times while it is read.
TEST_F(ChangingInput, JsonReaderWritesOnlyWhatItCounted) {
    for (Bytes const& record : {ManySegments(5000), ManyTasks(50000)}) {
        Write("record", record);
        ASSERT_EQ(Run("convert record --to json -o -"), 0);
        std::string line = out + std::string(64, ' ');
        crrecord::tool::json::Reader reader;
        auto const read = [&] {
            crrecord::tool::Record const made = reader.Read(std::string_view(line).substr(0, out.size()), line.size());
            return Bytes(made.bytes, made.bytes + made.size);
        };
        Bytes const expected = read();
        lineEnd = line.data() + ListEnd(line).offset;
        signal(SIGALRM, [](int) { *lineEnd = *lineEnd ^ ',' ^ ']'; });
        itimerval timer{{0, 50}, {0, 50}};
        setitimer(ITIMER_REAL, &timer, nullptr);
        int refused = 0;
        for (int i = 0; i < 300; ++i) {
            try {
                EXPECT_EQ(read(), expected);
            } catch (crrecord::tool::json::Error const& error) {
                refused += error.what() == std::string("the line changed while it was read") ? 1 : 0;
            }
        }
        timer = {};
        setitimer(ITIMER_REAL, &timer, nullptr);
        EXPECT_NE(refused, 0);
    }
}

// The output is larger than what a pipe holds, so that the command waits until the input has changed. All of a record
// is read before it is validated, and what is printed of it is what was validated.
TEST_F(ChangingInput, IsPrintedAsItWasValidated) {
    for (Bytes const& record : {ManySegments(20000), ManyTasks(100000)}) {
        for (std::string const verb : {"show --json in", "annotate in", "convert in --to json -o -"}) {
            Write("in", record);
            ASSERT_EQ(Run(verb + " >.expected"), 0) << err;
            Shell("{ $T " + verb +
                  "; echo $? >.status; } | { head -c 1; tr '\\0-\\377' '\\356' <in | "
                  "dd of=in conv=notrunc status=none; cat; } >.found");
            EXPECT_TRUE(String(".expected").starts_with(String(".found"))) << verb; // -o - may lack the end
            EXPECT_GT(String(".found").size(), 300000u);
            EXPECT_EQ(String(".status"), "2\n") << verb << err;
        }
    }
}

// The command's own output that is added to its input is not read.
TEST_F(ChangingInput, KeepsItsSizeFromTheOpening) {
    for (std::string const line : {"annotate in >>in", "annotate - <in >>in", "show --json in >>in"}) {
        Write("in", ManySegments(5000));
        EXPECT_EQ(Shell("trap '' XFSZ; ulimit -f 65536; $T " + line), 2) << line;
        EXPECT_NE(err.find(": file changed while it was read\n"), err.npos) << line << err;
    }
}

// Its size, time or content changes, before the end or before the command ends.
TEST_F(ChangingInput, IsReportedAsChanged) {
    Bytes const record = Golden({true, 1});
    Bytes all;
    while (all.size() < 2'000'000) {
        all.insert(all.end(), record.begin(), record.end());
    }
    ASSERT_EQ(Shell("head -c 1900000 /dev/zero >zeros; $T build zeros -o zeros.do --segment-size 100"), 0) << err;
    for (std::string const change : {"truncate -s 1000000 in", "truncate -s 999 in", "echo >>in", "touch in",
                                     "printf x | dd of=in bs=1 seek=1999999 conv=notrunc status=none"}) {
        for (std::string const verb : {"convert --to network -o - in", "show in", "show --json - <in", "redact -o - in",
                                       "annotate in", "show --json --records :9000 in", "verify zeros.do in"}) {
            Write("in", all);
            Shell("touch -d '1 hour ago' in; { $T " + verb + "; echo $? >.status; } | { head -c 1 >.first; " + change +
                  "; cat >.rest; }");
            EXPECT_EQ(String(".status"), "2\n") << verb << change;
            EXPECT_NE(err.find(": file changed while it was read\n"), err.npos) << verb << change << err;
        }
    }
}

} // namespace
