// Typed references: the two forms of a value, its order, and the handles of one pool for all libraries.

#include <crrecord/SORecord.h>

#include "support/do_record.h"
#include "support/other_library.h"
#include "use_everything.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

namespace {

using Handle = boost::intrusive_ptr<Cr_TRef>;

Handle Make(int kind, unsigned long id) {
    return new Cr_TRef(CRTRefNew(cr_reftype_t(kind), id));
}

Handle Read(Bytes const& bytes, int form, unsigned long* consumed = nullptr) {
    *__cr_errno_location() = CR_STATUS_OK;
    return new Cr_TRef(CRTRefNewDeserialize(bytes.data(), bytes.size(), form, consumed));
}

// In their order.
constexpr struct {
    int kind;
    unsigned long id;
    char const *serialized, *text;
} kForms[] = {
    {0, 0, "00080000000000000000", "ref0:0"},
    {1, ~0ul, "0108ffffffffffffffff", "ref1:18446744073709551615"},
    {2, 17, "02080000000000000011", "task:17"},
    {2, 0x0102030405060708, "02080102030405060708", "task:72623859790382856"},
    {4, 0x01020304, "040401020304", "dsid:16909060"},
    {4, 0xffffffff, "0404ffffffff", "dsid:4294967295"},
    {10, 1ul << 63, "0a088000000000000000", "ref10:9223372036854775808"},
};

TEST(TRef, FormsRoundTripAndValuesAreOrdered) {
    for (auto const& row : kForms) {
        std::string const text = row.text;
        SCOPED_TRACE(text);
        Handle const made = Make(row.kind, row.id);
        _cr_tref_t const* const value = made->Get();
        EXPECT_EQ(std::tuple(CRTRefGetType(value), CRTRefGetID(value), CRTRefGetTaskID(value)),
                  std::tuple(row.kind, row.id, row.id));
        for (int const form : {CR_TREF_TEXT, CR_TREF_SERIALIZED}) {
            Bytes const whole = form == CR_TREF_TEXT ? Bytes(text.begin(), text.end()) : FromHex(row.serialized);
            Bytes bytes = whole;
            if (form == CR_TREF_TEXT) {
                bytes.push_back('\0');
            }
            EXPECT_EQ(CRTRefSerializedSize(value, form), bytes.size());
            for (std::size_t capacity = 0; capacity <= bytes.size(); ++capacity) {
                bool const fits = capacity == bytes.size();
                Bytes written(capacity, 0xee);
                EXPECT_EQ(CRTRefSerialize(written.data(), capacity, value, form), fits ? whole.size() : 0);
                EXPECT_EQ(written, fits ? bytes : Bytes(capacity, 0xee));
            }
            unsigned long consumed = 0;
            EXPECT_TRUE(CRTRefEqual(Read(whole, form, &consumed)->Get(), value));
            EXPECT_EQ(consumed, whole.size());
            for (Bytes part = whole; form == CR_TREF_SERIALIZED && !part.empty();) {
                part.pop_back();
                part.shrink_to_fit();
                consumed = 77;
                EXPECT_EQ(Read(part, form, &consumed)->Get(), nullptr);
                EXPECT_EQ(std::pair(consumed, *__cr_errno_location()), std::pair(0ul, CR_STATUS_CORRUPT_RECORD));
            }
        }
        char shown[CR_TREF_TEXT_SIZE];
        EXPECT_STREQ(CRTRefToString(shown, sizeof shown, value), row.text);
        EXPECT_STREQ(CRTRefToString(shown, 4, value), text.substr(0, 3).c_str());
        EXPECT_STREQ(CRTRefToString(shown, 5, nullptr), "null");
        EXPECT_STREQ(CRTRefToString(shown, 0, value), "null");
        EXPECT_EQ(CRTRefToString(nullptr, 5, value), nullptr);
        for (auto const& other : kForms) {
            Handle const right = Make(other.kind, other.id);
            int const compared = CRTRefCompare(value, right->Get());
            EXPECT_EQ((compared > 0) - (compared < 0), (&row > &other) - (&row < &other)) << other.text;
            EXPECT_EQ(CRTRefEqual(value, right->Get()) != 0, &row == &other);
            EXPECT_EQ(Cr_TRefComparator()(made, right), &row < &other);
            if (row.kind == other.kind) {
                EXPECT_EQ(Cr_TRefComparator()(Cr_TRefEntry(made), Cr_TRefEntry(other.id)), &row < &other);
            }
        }
    }
}

TEST(TRef, RejectsInvalidReferences) {
    for (auto const& [kind, id] : {std::pair{-1, 1ul}, {11, 1ul}, {256, 1ul}, {4, 1ul << 32}}) {
        *__cr_errno_location() = CR_STATUS_OK;
        EXPECT_EQ(Make(kind, id)->Get(), nullptr);
        EXPECT_EQ(*__cr_errno_location(), CR_STATUS_INVALID);
    }
    for (char const* const hex : {"0b080000000000000001", "ff080000000000000001", "04080000000000000001",
                                  "02040000000100000000", "02000000000000000000", "02ff0000000000000000"}) {
        EXPECT_EQ(Read(FromHex(hex), CR_TREF_SERIALIZED)->Get(), nullptr) << hex;
    }
    for (std::string const text :
         {"", ":", "task", "task:", "task:-1", "task:+1", "task: 1", "task:01", "task:1 ", "Task:1", "dsid:4294967296",
          "task:18446744073709551616", "ref11:1", "ref2:1", "ref4:1", "ref06:1", "ref:1", "ref-1:1", "ref6:1:2"}) {
        EXPECT_EQ(Read(Bytes(text.begin(), text.end()), CR_TREF_TEXT)->Get(), nullptr) << text;
    }
    EXPECT_EQ(CRTRefNewDeserialize(nullptr, 10, CR_TREF_SERIALIZED, nullptr), nullptr);
    CRTRefDelete(nullptr);
}

// One pool serves all libraries.
TEST(TRefHandle, CopiesItsValueAndReturnsItsChunk) {
    Handle const original = Make(6, 1);
    Handle handle(Cr_TRef::Factory(original->Get()));
    EXPECT_NE(handle->Get(), original->Get());
    EXPECT_TRUE(CRTRefEqual(handle->Get(), original->Get()));
    Handle const second = handle;
    handle.reset();
    EXPECT_EQ(CRTRefGetID(second->Get()), 1u); // still held
    Cr_TRef* const theirs = OtherLibraryMakes(1);
    Handle(theirs).reset();
    Cr_TRef* const ours = new Cr_TRef(5u);
    EXPECT_EQ(ours, theirs);
    EXPECT_EQ(CRTRefGetType(ours->Get()), CR_REFTYPE_DSID);
    OtherLibraryReleases(ours);
    EXPECT_EQ(Handle(OtherLibraryMakes(3)).get(), ours);
    EXPECT_EQ(Handle(Cr_TRef::Factory(nullptr))->Get(), nullptr);
}

std::atomic<unsigned long> linesOfSink[2], strayLines;

// Counts "line N", as stray if the context is not the one that was set with this sink.
template <int I>
void CountLines(cr_log_level_t, cr_status_t, char const* message, void* lines) {
    (lines == &linesOfSink[I] ? linesOfSink[I] : strayLines) += std::strncmp(message, "line ", 5) == 0;
}

// They share only the pool and the log, whose sink and trace switch change meanwhile.
TEST(TRefHandle, ThreadsWithOwnRecordsDoNotInterfere) {
    static constexpr unsigned long kThreads = 6, kRounds = 500;
    static constexpr _SegmentDBRecord kBad{};
    std::atomic<unsigned long> ended = 0;
    RecordValues values = Example(3, 1);
    values.references = {{2, 17}, {4, 3}};
    Bytes const object = Spell(values).bytes, segment = Golden({false, 2, 0, 0});
    auto const work = [&](unsigned long seed) {
        auto const record = Build(Example(3, 1));
        std::vector<Handle> held;
        for (unsigned long i = 0; i < kRounds; ++i) {
            record->AddTaskID(seed + i);
            record->AddDSID(static_cast<unsigned int>(seed));
            record->DelDSID(static_cast<unsigned int>(seed));
            held.push_back(Make(6, seed + i));
            held.resize(i % 64 == 63 ? 0 : held.size());
            ErrorA(CR_STATUS_INVALID, "line %lu", seed + i);
            EXPECT_EQ(zebLogLastMessageA(), "line " + std::to_string(seed + i));
            SORecord::FromBuffer(segment.data(), segment.size())->HostToNetwork(0);
            if (i % 8 == 0) {
                EXPECT_STREQ(UseEverything(object.data(), object.size(), 0), nullptr);
            }
            SegmentRecordValidate(&kBad, 0, 0); // traces
        }
        for (std::size_t i = 0; i < held.size(); ++i) {
            EXPECT_EQ(CRTRefGetID(held[i]->Get()), seed + kRounds - held.size() + i);
        }
        EXPECT_EQ(record->GetNTRefs(), kRounds);
        record->RemoveAllTaskIDs();
        ++ended;
    };
    CRLogSetSink(CountLines<0>, &linesOfSink[0]);
    std::vector<std::jthread> threads;
    for (unsigned long i = 0; i < kThreads; ++i) {
        threads.emplace_back(work, (i + 1) << 20);
    }
    for (int round = 0; ended < kThreads; ++round) {
        round % 2 ? CRLogSetSink(CountLines<0>, &linesOfSink[0]) : CRLogSetSink(CountLines<1>, &linesOfSink[1]);
        CRLogSetTrace(round % 2);
    }
    threads.clear();
    CRLogSetSink(nullptr, nullptr);
    CRLogSetTrace(0);
    EXPECT_EQ(std::pair(linesOfSink[0] + linesOfSink[1], strayLines.load()), std::pair(kThreads * kRounds, 0ul));
}

// Other threads may hold any mutex while the process forks.
TEST(TRefHandle, ForkedChildrenMakeHandlesAndLog) {
    CRLogSetSink(CountLines<0>, &linesOfSink[0]);
    std::atomic<bool> ended = false;
    auto const work = [&ended] {
        while (!ended) {
            Make(6, 1);
            ErrorA(CR_STATUS_INVALID, "line");
        }
    };
    {
        std::jthread const first(work), second(work);
        for (int child = 0, status = 0; child < 100 && status == 0; ++child) {
            pid_t const id = ::fork();
            if (id == 0) {
                ::alarm(30);
                Make(6, 2);
                ErrorA(CR_STATUS_INVALID, "line of a child");
                ::_exit(0);
            }
            EXPECT_EQ(::waitpid(id, &status, 0), id);
            EXPECT_EQ(status, 0) << "child " << child;
        }
        ended = true;
    }
    CRLogSetSink(nullptr, nullptr);
}

} // namespace
