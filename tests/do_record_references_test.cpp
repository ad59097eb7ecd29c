// The typed references of a DO record, and the legacy arrays that become some.

#include "support/clock.h"
#include "support/log_capture.h"
#include "support/record_memory.h"

#include <crrecord/references.h>

#include <gtest/gtest.h>

#include <ranges>
#include <set>

#include <sys/mman.h>

namespace {

template <class Range>
constexpr bool kIsForwardView =
    std::ranges::forward_range<Range>&& std::ranges::view<Range>&& std::ranges::borrowed_range<Range>;
static_assert(kIsForwardView<DOReferenceRange> && kIsForwardView<DORecord::tref_range_t>);

using References = std::vector<std::pair<int, unsigned long>>;
using Handle = DORecord::tref_ptr_t;

Handle NewHandle(int kind, unsigned long id) {
    return new Cr_TRef(CRTRefNew(cr_reftype_t(kind), id));
}

void Load(DORecord& record, Bytes const& bytes) {
    record.AddSerializedTRefs(reinterpret_cast<char const*>(bytes.data()), static_cast<unsigned int>(bytes.size()));
}

References Visited(DORecord const& record) {
    References visited;
    for (auto position = record.GetTRefBegin(); position != record.GetTRefEnd(); position++) {
        visited.emplace_back(CRTRefGetType(position->get()->Get()), CRTRefGetID((*position)->Get()));
    }
    return visited;
}

// The record to the last byte, and zeros after it.
void ExpectWhole(OpenRecord const& record, RecordValues const& values, bool network = false) {
    Bytes bytes = Spell(values, network).bytes;
    EXPECT_EQ(StoredBytes(record), bytes);
    bytes.resize(record.bufferSize);
    EXPECT_EQ(Buffer(record), bytes);
    EXPECT_EQ(Visited(record), values.references);
}

TEST(DORecordReferences, AreStoredSortedAndRemovedWithoutTrace) {
    for (bool const network : {false, true}) {
        for (RecordValues values : Examples()) {
            SCOPED_TRACE(NameOf(values) + (network ? ", network" : ", host"));
            auto const record = Build<OpenRecord>(values);
            network ? record->HostToNetwork(0) : void();
            _cr_tref_t* const value = CRTRefNew(cr_reftype_t(6), 3);
            record->OwnTRef(NewHandle(9, ~0ul));
            record->OwnTRef(*value);
            record->AddDSID(0xfffefdfc);
            record->AddTaskID(256);
            record->AddTaskID(17);
            record->AddTRef(NewHandle(2, 1ul << 63));
            record->AddTRef(*NewHandle(4, 0)->Get());
            values.mtime = test_clock::now;
            values.references = {{2, 17}, {2, 256}, {2, 1ul << 63}, {4, 0}, {4, 0xfffefdfc}, {6, 3}, {9, ~0ul}};
            ExpectWhole(*record, values, network);
            EXPECT_EQ(record->GetSerializedTRefs(), reinterpret_cast<char*>(DORecordHeaderStartTRefs(record->header)));
            EXPECT_EQ(std::tuple(record->GetNTRefs(), record->GetNtaskid(), record->GetNds(), record->calcTRefsSize(),
                                 record->GetTRefTypeTotalSize(CR_REFTYPE_DSID)),
                      std::tuple(7, 3, 2, 62, 12));
            EXPECT_EQ(std::tuple(record->DelDSID(0), record->DelTRef(NewHandle(9, ~0ul))), std::tuple(1, 1));
            values.references = {{2, 17}, {2, 256}, {2, 1ul << 63}, {4, 0xfffefdfc}, {6, 3}};
            ExpectWhole(*record, values, network);
            record->RemoveAllTRefs(); // of the tasks
            values.references = {{4, 0xfffefdfc}, {6, 3}};
            ExpectWhole(*record, values, network);
            record->ClearTRefType(CR_REFTYPE_DSID);
            record->ClearTRefType(cr_reftype_t(6));
            values.references = {};
            ExpectWhole(*record, values, network);
            Load(*record, SpellReferences({{2, 1}, {9, 2}}));
            record->GetHeader(); // writes them into their section
            record->initReferenceSets();
            Bytes bare = Spell(values, network).bytes;
            bare.resize(record->bufferSize);
            EXPECT_EQ(Buffer(*record), bare);
        }
    }
}

TEST(DORecordReferences, EachKindHasItsRulesForAddCheckAndDelete) {
    for (int kind = 0; kind < CR_REFTYPE_END; ++kind) {
        auto const record = Build(Example(0, 1));
        auto const handle = NewHandle(kind, 5);
        auto const type = cr_reftype_t(kind);
        bool const isAdded = std::set{2, 4, 6, 9}.contains(kind), isDeleted = isAdded || kind == 8;
        bool const isChecked = isAdded && kind != 2;
        std::string const text = (kind == 2 ? "task" : kind == 4 ? "dsid" : "ref" + std::to_string(kind)) + ":5";
        std::string const unsupported = "The type of reference " + text + " is unsupported for a DO";
        std::string const refused = "9: " + unsupported + "|error 9: " + unsupported + "\n";
        SCOPED_TRACE(text);
        LogCapture log;
        auto const outcome = [&](auto const& call) { // what it throws and logs
            std::string const thrown = Refusal(call);
            return thrown + "|" + log.Take();
        };
        EXPECT_EQ(
            outcome([&] { EXPECT_EQ(record->CheckTRef(handle), isChecked ? CR_STATUS_NOT_FOUND : CR_STATUS_OK); }),
            isChecked   ? "|warning 72: CheckTRef: The type of reference " + text + " is not found\n"
            : kind == 7 ? "|"
                        : "9: CheckTRef: " + unsupported + "|error 9: CheckTRef: " + unsupported + "\n");
        EXPECT_EQ(outcome([&] { EXPECT_EQ(record->DelTRef(handle), 0u); }), isDeleted ? "|" : refused);
        EXPECT_EQ(outcome([&] { EXPECT_EQ(record->AddTRef(handle), 0); }), isAdded ? "|" : refused);
        EXPECT_EQ(outcome([&] { EXPECT_EQ(record->OwnTRef(handle), 1); }), isAdded ? "|" : refused);
        EXPECT_EQ(record->GetNTRefs(type), isAdded);
        if (isChecked) {
            EXPECT_EQ(record->CheckTRef(handle->Get()), CR_STATUS_OK);
        }
        Load(*record, SpellReferences({{kind, 5}})); // accepts every kind
        EXPECT_EQ(std::distance(record->GetTRefTypeBegin(type), record->GetTRefTypeEnd(type)), 1);
        EXPECT_EQ(Visited(*record), kind == 0 ? References() : References({{kind, 5}}));
        if (isDeleted) {
            EXPECT_EQ(record->DelTRef(handle->Get()), 1u);
        }
        EXPECT_EQ(log.Take(), "");
    }
}

TEST(DORecordReferences, RejectsNullExceptToDeleteAPointer) {
    auto const record = Build(Example(0, 1));
    _cr_tref_t* const null = nullptr;
    for (Handle const& handle : {Handle(), Handle(new Cr_TRef(null))}) {
        EXPECT_EQ(Refusal([&] { record->OwnTRef(handle); }), "9: NULL reference");
        EXPECT_EQ(Refusal([&] { record->AddTRef(handle); }), "9: NULL reference");
        EXPECT_EQ(Refusal([&] { record->CheckTRef(handle); }), "9: NULL reference");
        EXPECT_EQ(Refusal([&] { record->DelTRef(handle); }), "9: NULL reference");
    }
    EXPECT_EQ(Refusal([&] { record->CheckTRef(null); }), "9: NULL reference");
    EXPECT_EQ(Refusal([&] { record->AddSerializedTRefs(nullptr, 1); }), "9: NULL reference");
    EXPECT_EQ(record->DelTRef(null), 0u);
    for (cr_reftype_t const none : {cr_reftype_t(-1), CR_REFTYPE_END, cr_reftype_t(1 << 30)}) {
        EXPECT_EQ(std::tuple(record->GetNTRefs(none), record->GetTRefTypeTotalSize(none)), std::tuple(0, 0));
        EXPECT_EQ(record->GetTRefTypeBegin(none), record->GetTRefTypeEnd(none));
        record->ClearTRefType(none);
    }
    DORecord::tref_const_iterator_t ofNone;
    EXPECT_EQ(ofNone++, DORecord::tref_const_iterator_t());
    EXPECT_NE(ofNone, record->GetTRefEnd());
    EXPECT_EQ(++record->GetTRefEnd(), record->GetTRefEnd());
}

int IsOdd(unsigned long taskId, void*) {
    return taskId % 2 != 0;
}

TEST(DORecordReferences, CallbacksSelectTasksAndSomeOperationsTouch) {
    auto const record = Build(Example(3, 1));
    auto const touches = [&](auto const& run) {
        ++test_clock::now;
        run();
        return record->GetMTime() == test_clock::now;
    };
    EXPECT_TRUE(touches([&] { Load(*record, SpellReferences({{2, 6}, {2, 2}, {2, 3}, {2, 4}, {2, 5}})); }));
    EXPECT_TRUE(touches([&] { EXPECT_EQ(record->AddTaskID(2), 1); }));
    EXPECT_TRUE(touches([&] { EXPECT_EQ(record->DelDSID(1), 0u); }));
    EXPECT_FALSE(touches([&] { EXPECT_EQ(record->AddTaskID(8, IsOdd, nullptr), 9); })); // removes none of the others
    EXPECT_EQ(record->AddTaskID(8, nullptr, nullptr), 9);
    EXPECT_EQ(Refusal([&] { record->RemoveInactiveTaskIDs(nullptr, nullptr); }), "9: NULL reference");
    References asked;
    auto const note = [](unsigned long taskId, void* context) {
        static_cast<References*>(context)->emplace_back(2, taskId);
        return taskId == 4 ? 0 : -1;
    };
    EXPECT_EQ(record->AddTaskID(7, note, &asked), 0);
    EXPECT_EQ(asked, References({{2, 7}, {2, 2}, {2, 3}, {2, 4}, {2, 5}, {2, 6}}));
    EXPECT_EQ(record->RemoveInactiveTaskIDs(IsOdd, nullptr), 2u);
    EXPECT_TRUE(touches([&] { EXPECT_EQ(record->RemoveInactiveTaskIDs(IsOdd, nullptr), 0u); }));
    EXPECT_EQ(Visited(*record), References({{2, 3}, {2, 5}, {2, 7}}));
    EXPECT_NE(std::next(record->GetTRefBegin()), record->GetTRefBegin());
    EXPECT_FALSE(record->References().empty());
    record->setTRefsSize(5);
    EXPECT_FALSE(touches([&] { record->ClearTRefType(CR_REFTYPE_TASKID); }));
    EXPECT_EQ(record->getTRefsSize(), 0u); // subtracts at most the stored size
}

// A record size that a raw setter made too small stops a removal: that reference stays, its bytes do not.
TEST(DORecordReferences, RemovalStopsAtTheBareSize) {
    auto const record = Build<OpenRecord>(Example(3, 1));
    record->AddTaskID(1);
    record->AddTaskID(2);
    record->setRecSize(104 + 10);
    unsigned int const before = test_clock::now++;
    EXPECT_EQ(Refusal([&] { record->RemoveAllTRefs(); }), kInvalidSize);
    EXPECT_EQ(Visited(*record), References({{2, 2}}));
    EXPECT_EQ(std::tuple(record->getTRefsSize(), record->getRecSize(), record->GetMTime()),
              std::tuple(0u, 104u, before));
    record->header->recsize = 103;
    EXPECT_EQ(Refusal([&] { Load(*record, SpellReferences({{2, 1}})); }), kInvalidSize);
}

TEST(DORecordReferences, LoadStopsAtACorruptReference) {
    RecordValues values = Example(3, 1);
    values.references = {{2, 1}, {4, 9}};
    for (Bytes const& corrupt : {Bytes{11, 8, 0, 0, 0, 0, 0, 0, 0, 1}, {2, 4, 0, 0, 0, 1}, {4, 8}, {2}}) {
        Bytes bytes = SpellReferences({{4, 9}, {4, 9}, {2, 1}});
        bytes.insert(bytes.end(), corrupt.begin(), corrupt.end());
        LogCapture log(1);
        auto const record = Build<OpenRecord>(Example(3, 1));
        EXPECT_EQ(Refusal([&] { Load(*record, bytes); }), "32: Received a buffer with corrupt typed references.");
        EXPECT_EQ(log.Take(), "trace 0: Invalid DO record: invalid typed reference at offset 22 from start of typed "
                              "reference section: " +
                                  std::string(CRStatusToStringA(CR_STATUS_CORRUPT_RECORD)) + "\n");
        ExpectWhole(*record, values);
    }
}

TEST(DORecordReferences, ReloadStopsAtACorruptReference) {
    RecordValues values = Example(3, 1);
    values.references = {{2, 1}, {4, 9}, {6, 5}};
    SpelledRecord spelled = Spell(values);
    spelled.bytes[spelled.references + 16] = 11;
    auto const record = Build<OpenRecord>(values);
    Hold(*record, spelled.bytes);
    EXPECT_EQ(Refusal([&] { record->convertToTRefs(); }), "32: Received a buffer with corrupt typed references.");
    values.references.pop_back();
    ExpectWhole(*record, values);
}

// GetHeader is for const records, which may be in memory that is read only.
TEST(DORecordReferences, SectionThatIsUpToDateIsNotWritten) {
    constexpr std::size_t kPage = 4096;
    void* const memory = mmap(nullptr, kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    {
        auto const record = Build<OpenRecord>(Example(3, 1));
        std::ranges::copy(Buffer(*record), static_cast<unsigned char*>(memory));
        Use(*record, memory, kPage, OpenRecord::CopyMode::Fixed);
        Load(*record, SpellReferences({{0, 1}, {2, 3}, {4, 5}, {9, ~0ul}}));
        record->GetHeader();
        mprotect(memory, kPage, PROT_READ); // a write ends the test program
        EXPECT_EQ(record->GetHeader(), memory);
        EXPECT_EQ(record->GetSerializedTRefs(), static_cast<char*>(memory) + record->getRecSize() - 24 - 36);
    }
    munmap(memory, kPage);
}

// The record grows and moves while it reads them.
TEST(DORecordReferences, LoadReadsTheRecordsOwnSection) {
    RecordValues values = Example(2, 3);
    auto const record = Build<OpenRecord>(values);
    record->HostToNetwork(0);
    values.references = {{2, 1}, {6, 2}, {9, 3}};
    Hold(*record, Spell(values, true).bytes);
    record->AddSerializedTRefs(record->GetSerializedTRefs(), record->getTRefsSize());
    EXPECT_EQ(record->getTRefsSize(), 60u); // of the section and of the loaded references
    record->setTRefsSize(30);
    record->setRecSize(record->getRecSize() - 30);
    values.mtime = test_clock::now;
    ExpectWhole(*record, values, true);
}

TEST(DORecordReferences, NetworkToHostDropsTasksOnRequest) {
    RecordValues values = Example(4, 1);
    auto const record = Build<OpenRecord>(values);
    record->AddTaskID(1);
    record->HostToNetwork(2);
    EXPECT_TRUE(record->HasTaskID(1));
    record->NetworkToHost(3);
    values.mtime = test_clock::now;
    ExpectWhole(*record, values);
}

// Both gaps are closed by the size of the task ids: DSIDs alone stay, and after a task id two more of them are removed.
TEST(DORecordLegacyReferences, BecomeTypedReferences) {
    struct {
        std::vector<unsigned long> taskIds;
        std::vector<unsigned int> dsids;
        unsigned int first; // word after the gaps are closed
        References references;
    } const rows[] = {
        {{5, 3, ~0ul, 3}, {}, 0, {{2, 3}, {2, 5}, {2, ~0ul}}},
        {{}, {0xe1e1e1e1, 7, 7}, 0xe1e1e1e1, {{4, 7}, {4, 0xe1e1e1e1}}},
        {{1}, {0xe1e1e1e1, 5, 0xe3e3e3e3}, 0xe3e3e3e3, {{2, 1}, {4, 5}, {4, 0xe1e1e1e1}, {4, 0xe3e3e3e3}}},
        {{3, 3, 3, 3, 3, 3, 3, 3}, {}, 0, {{2, 3}}},
    };
    for (RecordValues values : Examples()) {
        for (auto const& row : rows) {
            SCOPED_TRACE(NameOf(values) + ", row " + std::to_string(&row - rows));
            auto const record = Build<OpenRecord>(values);
            RecordValues legacy = values, expected = values;
            legacy.taskIds = row.taskIds;
            legacy.dsids = row.dsids;
            Hold(*record, Spell(legacy).bytes);
            record->convertToTRefs();
            EXPECT_EQ(WordAt<unsigned int>(Buffer(*record), Spell(legacy).taskIds), row.first);
            expected.mtime = test_clock::now;
            expected.references = row.references;
            ExpectWhole(*record, expected);
        }
    }
}

TEST(DORecordLegacyReferences, RejectionsChangeNothing) {
    RecordValues values = Example(3, 1);
    values.taskIds = {1};
    for (bool const owns : {true, false}) {
        auto const record = Build<OpenRecord>(values);
        values.references = {{2, 1}};
        Bytes memory = Spell(values).bytes;
        owns ? Hold(*record, memory) : Borrow(*record, memory, OpenRecord::CopyMode::Borrowed);
        record->header->nds = 1000; // more than there are
        Bytes const before = Buffer(*record);
        EXPECT_EQ(Refusal([&] { record->convertToTRefs(); }),
                  owns ? "71: Record with both old references and new typed references not supported."
                       : "9: Cannot construct a DORecord that does not own its internal buffer but has old task id "
                         "and dsid references.");
        EXPECT_EQ(Buffer(*record), before);
        record->setTRefsSize(0);
        EXPECT_EQ(Refusal([&] { record->convertToTRefs(); }).substr(0, 10), owns ? "9: invalid" : "9: Cannot ");
    }
}

TEST(DORecordLegacyReferences, RecordWithoutThemIsLoadedInPlace) {
    RecordValues values = Example(1, 3);
    auto const record = Build<OpenRecord>(values);
    values.references = {{0, 9}, {2, 3}, {4, 8}, {10, 1}};
    Bytes memory = Spell(values).bytes;
    Borrow(*record, memory, OpenRecord::CopyMode::Fixed);
    record->convertToTRefs();
    EXPECT_EQ(memory, Spell(values).bytes);
    record->convertToTRefs(); // the sets are filled now
    EXPECT_EQ(StoredBytes(*record), Spell(values).bytes);
    EXPECT_EQ(std::tuple(record->GetNTRefs(), record->HasTaskID(3), record->HasDSID(8), record->HasDSID(3)),
              std::tuple(4, true, true, false));
}

} // namespace
