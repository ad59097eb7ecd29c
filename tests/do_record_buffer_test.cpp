// The buffer of a DO record: its modes and growth, its size, and what a failure leaves.

#include "support/clock.h"
#include "support/fault.h"
#include "support/record_memory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include <unistd.h>

namespace {

using Mode = OpenRecord::CopyMode;

constexpr Mode kModes[] = {Mode::Fixed, Mode::Borrowed, Mode::Own};
constexpr char kMayNotCopy[] = "9: Need to expand the buffer of DORecord but I'm not allowed to copy it.";

std::size_t const kPage = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));

// Dirties the blocks that the next growth is likely to get.
void DirtyTheHeap() {
    void* volatile blocks[8];
    for (void* volatile& block : blocks) {
        block = std::memset(std::malloc(2 * kPage), 0xee, 2 * kPage);
    }
    for (void* const block : blocks) {
        std::free(block);
    }
}

class Growth : public testing::TestWithParam<Mode> {
protected:
    // A record of the mode in this test's memory; an own one has its own.
    void SetUp() override { GetParam() == Mode::Own ? Hold(*record, bytes) : Borrow(*record, memory, GetParam()); }

    Bytes const bytes = Spell(Example(3, 3)).bytes;
    Bytes memory = bytes;
    std::unique_ptr<OpenRecord> const record = Build<OpenRecord>(Example(3, 3));
};
INSTANTIATE_TEST_SUITE_P(DORecord, Growth, testing::ValuesIn(kModes));

TEST_P(Growth, WithinTheBufferDoesNothing) {
    DORecordHeader const* const before = record->header;
    record->expand();
    record->expand(0);
    record->expand(static_cast<unsigned int>(bytes.size()));
    EXPECT_TRUE(record->header == before && record->copyMode == GetParam());
    EXPECT_EQ(Buffer(*record), bytes);
}

TEST_P(Growth, BeyondItTakesWholePagesOfZeros) {
    DirtyTheHeap();
    for (auto const& [asked, pages] : {std::pair{bytes.size() + 1, 1}, {kPage, 1}, {kPage + 1, 2}, {kPage, 2}}) {
        bool const fixed = GetParam() == Mode::Fixed;
        EXPECT_EQ(Refusal([&, size = asked] { record->expand(static_cast<unsigned int>(size)); }),
                  fixed ? kMayNotCopy : "");
        Bytes expected = bytes;
        expected.resize(fixed ? bytes.size() : static_cast<std::size_t>(pages) * kPage);
        EXPECT_EQ(Buffer(*record), expected);
        EXPECT_EQ(record->copyMode, fixed ? Mode::Fixed : Mode::Own);
        EXPECT_EQ(record->ownsBuffer, !fixed);
    }
    EXPECT_EQ(memory, bytes); // and it is the caller's to free
}

TEST_P(Growth, BorrowedFromAnOwnBlockFreesIt) {
    if (GetParam() == Mode::Own) {
        record->copyMode = Mode::Borrowed; // a leak otherwise
        record->expand(static_cast<unsigned int>(kPage));
        EXPECT_TRUE(record->ownsBuffer && record->copyMode == Mode::Own);
    }
}

TEST_P(Growth, WithoutMemoryLeavesEverything) {
    DORecordHeader const* const before = record->header;
    std::string refusal;
    auto const grow = [&] {
        try {
            record->expand(static_cast<unsigned int>(kPage));
        } catch (Cr_ErrnoException const& caught) {
            EXPECT_STREQ(caught.what(),
                         GetParam() == Mode::Fixed ? kMayNotCopy + 3 : "Not enough memory to expand a DO record.");
            return caught.GetStatus();
        }
        return CR_STATUS_OK;
    };
    fault::Outcome const outcome = fault::Run(grow, 1);
    EXPECT_EQ(outcome.status, GetParam() == Mode::Fixed ? CR_STATUS_INVALID : CR_STATUS_NO_MEMORY);
    EXPECT_TRUE(record->header == before && record->copyMode == GetParam());
    EXPECT_EQ(Buffer(*record), bytes);
}

// A fixed record takes references as long as there is room, and is as before when there is none.
TEST(DORecordBuffer, FixedRecordRollsTheReferenceBack) {
    RecordValues values = Example(5, 1);
    Bytes memory = Spell(values).bytes;
    memory.resize(memory.size() + 16, 0xee);
    auto const record = Build<OpenRecord>(values);
    Borrow(*record, memory, Mode::Fixed);
    EXPECT_EQ(record->AddTaskID(1), 0);
    values.mtime = test_clock::now;
    values.references = {{2, 1}};
    EXPECT_EQ(StoredBytes(*record), Spell(values).bytes);
    record->AddSerializedTRefs("\4\4\0\0\0\5", 6);
    values.references = {{2, 1}, {4, 5}};
    EXPECT_EQ(StoredBytes(*record), Spell(values).bytes);
    ++test_clock::now;
    DORecord::tref_ptr_t const handle(new Cr_TRef(6u));
    EXPECT_EQ(Refusal([&] { record->OwnTRef(handle); }), kMayNotCopy);
    EXPECT_EQ(Refusal([&] { record->AddSerializedTRefs("\4\4\0\0\0\6", 6); }), kMayNotCopy);
    record->GetHeader();
    EXPECT_EQ(memory, Spell(values).bytes);
    EXPECT_EQ(record->GetNTRefs(), 2u);
    record->setRecSize(record->getRecSize() + 1);
    EXPECT_EQ(Refusal([&] { record->AddTaskID(1); }), kMayNotCopy); // one that is there asks for the room too
}

TEST(DORecordBuffer, SizesWithoutLegacyArraysAndReferences) {
    for (bool const network : {false, true}) {
        RecordValues values = Example(2, 1);
        auto const record = Build<OpenRecord>(values);
        unsigned int const bare = record->getRecSize();
        network ? record->HostToNetwork(0) : void();
        record->AddTaskID(1);
        record->header->ntaskid = record->header->nds = 1;
        EXPECT_EQ(record->calcRecSize(), bare + 10);
        record->initReferenceSets();
        EXPECT_EQ(record->getTRefsSize(), 0u);
        EXPECT_EQ(record->getRecSize(), bare);
        EXPECT_TRUE(record->HasTaskID(1));
        EXPECT_EQ(record->RemoveInactiveTaskIDs([](unsigned long, void*) { return 0; }, nullptr), 1u);
        EXPECT_EQ(record->getTRefsSize(), 0u); // takes away at most what is there
        EXPECT_EQ(record->getRecSize(), bare);
    }
}

TEST(DORecordBuffer, NothingGrowsBeyond32Bits) {
    auto const record = Build<OpenRecord>(Example(2, 1));
    record->header->nfp = 153391683; // 28 bytes each, beside a list of 40 and 104 for header and tail
    EXPECT_EQ(record->calcRecSize(), 4294967268u);
    ++record->header->nfp;
    Bytes before = Buffer(*record);
    EXPECT_EQ(Refusal([&] { record->calcRecSize(); }), kInvalidSize);
    EXPECT_EQ(Refusal([&] { record->initReferenceSets(); }), kInvalidSize);
    EXPECT_EQ(Buffer(*record), before);
    record->header->nfp = 3;
    record->setRecSize(0xffffffff - 9);
    before = Buffer(*record);
    EXPECT_EQ(Refusal([&] { record->AddTaskID(1); }), kInvalidSize);
    EXPECT_EQ(Refusal([&] { record->AddSerializedTRefs("\2\10\0\0\0\0\0\0\0\1", 10); }), kInvalidSize);
    EXPECT_EQ(Buffer(*record), before);
    EXPECT_EQ(record->GetNTRefs(), 0u);
}

// What each of these does to a fresh record happens whole or not at all.
TEST(DORecordBuffer, AddingWithoutMemoryLeavesTheRecordByteForByte) {
    RecordValues values = Example(3, 1);
    values.mtime = test_clock::now; // that of a step that went well is allowed
    Bytes const expected = Spell(values).bytes;
    std::vector<DORecord::tref_ptr_t> chunks;
    for (int i = 0; i < 64; ++i) { // enough of them in the pool that no block is taken meanwhile
        chunks.emplace_back(new Cr_TRef(1u));
    }
    chunks.clear();
    DORecord::tref_ptr_t const handle(new Cr_TRef(7ul));
    using Operation = void (*)(OpenRecord&, DORecord::tref_ptr_t const&);
    constexpr Operation kOperations[] = {
        [](OpenRecord& record, auto&) { record.AddTaskID(1); },
        [](OpenRecord& record, auto&) { record.AddDSID(1); },
        [](OpenRecord& record, auto& own) { record.OwnTRef(own); },
        [](OpenRecord& record, auto& own) { record.AddTRef(own); },
        [](OpenRecord& record, auto& own) { record.AddTRef(*own->Get()); },
        [](OpenRecord& record, auto&) {
            _cr_tref_t* const value = CRTRefNew(cr_reftype_t(6), 1);
            value ? record.OwnTRef(*value) : throw std::bad_alloc();
        },
        [](OpenRecord& record, auto&) {
            record.AddTaskID(
                1, [](unsigned long, void*) { return 1; }, nullptr);
        },
        [](OpenRecord& record, auto&) { record.AddSerializedTRefs("\2\10\0\0\0\0\0\0\0\1", 10); },
        [](OpenRecord& record, auto&) { record.expand(5000); },
    };
    for (Operation const& run : kOperations) {
        SCOPED_TRACE(&run - kOperations);
        unsigned long built = 0;
        auto const attempt = [&]() -> cr_status_t {
            try {
                auto const record = Build<OpenRecord>(values);
                ++built;
                try {
                    run(*record, handle);
                } catch (...) {
                    EXPECT_TRUE(record->getRecSize() == expected.size() && record->GetNTRefs() == 0 &&
                                std::memcmp(record->header, expected.data(), expected.size()) == 0);
                    throw;
                }
            } catch (Cr_ErrnoException const& caught) {
                return caught.GetStatus();
            } catch (std::bad_alloc const&) {
                return CR_STATUS_NO_MEMORY;
            }
            return CR_STATUS_OK;
        };
        fault::FailEach(attempt);
        EXPECT_GT(built, 1u); // of which one got through
    }
}

// The pool takes its blocks with operator new[], which sanitizers put their own in place of.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST(DORecordBuffer, HandlesWithoutAChunkInThePoolThrow) {
    std::vector<DORecord::tref_ptr_t> held;
    bool full = false;
    while (!full && held.size() < 100000) {
        _cr_tref_t* value = CRTRefNew(CR_REFTYPE_TASKID, held.size());
        Cr_TRef* handle = nullptr;
        auto const make = [&]() -> cr_status_t {
            try {
                handle = new Cr_TRef(value);
            } catch (std::bad_alloc const&) {
                return CR_STATUS_NO_MEMORY;
            }
            return CR_STATUS_OK;
        };
        full = fault::Run(make, 1, true).status == CR_STATUS_NO_MEMORY;
        if (full) {
            CRTRefDelete(&value);
        } else {
            held.emplace_back(handle);
        }
    }
    EXPECT_TRUE(full);
}
#endif

// Sections that reach out of the buffer because a raw setter says so are not followed.
TEST(DORecordBuffer, InconsistentRecordsAreRefused) {
    using Break = void (*)(OpenRecord&);
    constexpr Break kBreaks[] = {
        [](OpenRecord& record) { record.header->nfp = ~0u; }, // the only one that conversions would follow too
        [](OpenRecord& record) { record.header->nfp = 4; },
        [](OpenRecord& record) { record.SetFPType(3); },
        [](OpenRecord& record) { record.setTRefsSize(~0u); },
        [](OpenRecord& record) { record.header->nudcid = ~0u; },
        [](OpenRecord& record) { record.header->ntaskid = ~0u; },
        [](OpenRecord& record) { record.header->nds = ~0u; },
    };
    for (bool const network : {false, true}) {
        for (Break const& make : kBreaks) {
            SCOPED_TRACE(std::to_string(&make - kBreaks) + (network ? " network" : " host"));
            RecordValues values = Example(2, 1);
            values.references = {{2, 1}};
            auto const record = Build<OpenRecord>(values);
            record->AddTaskID(1);
            network ? record->HostToNetwork(0) : void();
            Hold(*record, Spell(values, network).bytes);
            make(*record);
            Bytes const before = Buffer(*record);
            char const* const address = reinterpret_cast<char const*>(record->header);
            EXPECT_EQ(Refusal([&] { record->AddTaskID(1); }), kInvalidSize);
            EXPECT_EQ(Refusal([&] { record->AddTaskID(2); }), kInvalidSize);
            EXPECT_EQ(Refusal([&] { record->AddSerializedTRefs(address, 10); }), kInvalidSize);
            EXPECT_EQ(Refusal([&] { record->GetHeader(); }), kInvalidSize);
            EXPECT_EQ(Refusal([&] { record->GetSerializedTRefs(); }), kInvalidSize);
            if (make == kBreaks[0]) {
                EXPECT_EQ(Refusal([&] { record->NetworkToHost(0); }), kInvalidSize);
                EXPECT_EQ(Refusal([&] { record->HostToNetwork(1); }), kInvalidSize);
            }
            EXPECT_EQ(Buffer(*record), before);
            record->RemoveAllTRefs(); // clears inside of the buffer only
            EXPECT_EQ(record->GetNTRefs(), 0u);
            EXPECT_EQ(Refusal([&] { record->GetHeader(); }), ""); // has nothing to write
        }
    }
}

} // namespace
