// The typed references of a DO record, and the legacy arrays that become some.

#include "support/clock.h"
#include "support/log_capture.h"
#include "support/record_memory.h"

#include <gtest/gtest.h>

namespace {

using References = std::vector<std::pair<int, unsigned long>>;
using Handle = DORecord::tref_ptr_t;

Handle NewHandle(int kind, unsigned long id) {
    return new Cr_TRef(CRTRefNew(cr_reftype_t(kind), id));
}

void Load(DORecord& record, References const& references) {
    Bytes const bytes = SpellReferences(references);
    record.AddSerializedTRefs(reinterpret_cast<char const*>(bytes.data()), static_cast<unsigned int>(bytes.size()));
}

References Visited(DORecord const& record) {
    References visited;
    for (auto position = record.GetTRefBegin(); position != record.GetTRefEnd(); position++) {
        visited.emplace_back(CRTRefGetType(position->get()->Get()), CRTRefGetID((*position)->Get()));
    }
    return visited;
}

// Whatever goes in, in whatever order: the record is the one that the format describes, to the last byte.
TEST(DORecordReferences, AreInTheRecordInOrderAndGoWithoutATrace) {
    for (RecordValues values : Examples()) {
        for (bool const network : {false, true}) {
            SCOPED_TRACE(NameOf(values) + (network ? ", network" : ", host"));
            auto const record = Build<OpenRecord>(values);
            network ? record->HostToNetwork(0) : void();
            _cr_tref_t* const value = CRTRefNew(cr_reftype_t(6), 3);
            EXPECT_EQ(record->OwnTRef(NewHandle(9, ~0ul)), 0);
            EXPECT_EQ(record->OwnTRef(*value), 0);
            EXPECT_EQ(record->AddDSID(0xfffefdfc), 0);
            EXPECT_EQ(record->AddTaskID(256), 0);
            EXPECT_EQ(record->AddTaskID(17), 0);
            EXPECT_EQ(record->AddTRef(NewHandle(2, 1ul << 63)), 0);
            EXPECT_EQ(record->AddTRef(*NewHandle(4, 0)->Get()), 0);
            RecordValues expected = values;
            expected.mtime = test_clock::now;
            expected.references = {{2, 17}, {2, 256}, {2, 1ul << 63}, {4, 0}, {4, 0xfffefdfc}, {6, 3}, {9, ~0ul}};
            EXPECT_EQ(StoredBytes(*record), Spell(expected, network).bytes);
            EXPECT_EQ(record->GetSerializedTRefs(), reinterpret_cast<char*>(DORecordHeaderStartTRefs(record->header)));
            EXPECT_EQ(Visited(*record), expected.references);
            EXPECT_EQ(record->GetNTRefs(), 7u);
            EXPECT_EQ(record->GetNtaskid(), 3u);
            EXPECT_EQ(record->GetNds(), 2u);
            EXPECT_EQ(record->GetTRefTypeTotalSize(CR_REFTYPE_DSID), 12u);
            EXPECT_EQ(record->calcTRefsSize(), 62u);
            EXPECT_EQ(record->GetSerializedTRefsSize(), 62u);

            EXPECT_EQ(record->DelDSID(0), 1u);
            EXPECT_EQ(record->DelTRef(NewHandle(9, ~0ul)), 1u);
            expected.references = {{2, 17}, {2, 256}, {2, 1ul << 63}, {4, 0xfffefdfc}, {6, 3}};
            EXPECT_EQ(StoredBytes(*record), Spell(expected, network).bytes);
            record->RemoveAllTRefs(); // of the tasks
            expected.references = {{4, 0xfffefdfc}, {6, 3}};
            EXPECT_EQ(StoredBytes(*record), Spell(expected, network).bytes);
            record->ClearTRefType(CR_REFTYPE_DSID);
            record->ClearTRefType(cr_reftype_t(6));
            expected.references = {};
            EXPECT_EQ(StoredBytes(*record), Spell(expected, network).bytes);
            Bytes bytes = Spell(expected, network).bytes;
            bytes.resize(record->bufferSize);
            EXPECT_EQ(Buffer(*record), bytes);
        }
    }
}

TEST(DORecordReferences, KindsAreTakenCheckedAndDeletedEachInItsOwnWay) {
    for (int kind = 0; kind < CR_REFTYPE_END; ++kind) {
        SCOPED_TRACE(kind);
        auto const record = Build(Example(0, 1));
        auto const handle = NewHandle(kind, 5);
        auto const isOneOf = [=](std::initializer_list<int> kinds) {
            return std::find(kinds.begin(), kinds.end(), kind) != kinds.end();
        };
        bool const isAdded = isOneOf({2, 4, 6, 9}), isDeleted = isAdded || kind == 8;
        bool const isChecked = isOneOf({4, 6, 9}), passes = kind == 7;
        std::string const text = kind == 2 ? "task:5" : kind == 4 ? "dsid:5" : "ref" + std::to_string(kind) + ":5";
        std::string const unsupported = "The type of reference " + text + " is unsupported for a DO";
        std::string const refusal = "9: " + unsupported, line = "error " + refusal + "\n";
        LogCapture log;

        cr_status_t status = CR_STATUS_OK;
        auto const check = [&] { status = record->CheckTRef(handle); };
        EXPECT_EQ(Refusal(check), isChecked || passes ? "" : "9: CheckTRef: " + unsupported);
        EXPECT_EQ(status, isChecked ? CR_STATUS_NOT_FOUND : CR_STATUS_OK);
        EXPECT_EQ(log.Take(), isChecked ? "warning 72: CheckTRef: The type of reference " + text + " is not found\n"
                              : passes  ? ""
                                        : "error 9: CheckTRef: " + unsupported + "\n");
        EXPECT_EQ(Refusal([&] { EXPECT_EQ(record->DelTRef(handle), 0u); }), isDeleted ? "" : refusal);
        EXPECT_EQ(log.Take(), isDeleted ? "" : line);
        EXPECT_EQ(Refusal([&] { EXPECT_EQ(record->AddTRef(handle), 0); }), isAdded ? "" : refusal);
        EXPECT_EQ(log.Take(), isAdded ? "" : line);
        EXPECT_EQ(Refusal([&] { EXPECT_EQ(record->OwnTRef(handle), 1); }), isAdded ? "" : refusal);
        log.Take();
        EXPECT_EQ(record->GetNTRefs(cr_reftype_t(kind)), isAdded);
        if (isChecked) {
            EXPECT_EQ(record->CheckTRef(handle->Get()), CR_STATUS_OK);
        }
        Load(*record, {{kind, 5}}); // asks for no kind
        EXPECT_EQ(record->GetNTRefs(), 1u);
        EXPECT_EQ(
            std::distance(record->GetTRefTypeBegin(cr_reftype_t(kind)), record->GetTRefTypeEnd(cr_reftype_t(kind))), 1);
        EXPECT_EQ(Visited(*record), kind == 0 ? References() : References({{kind, 5}}));
        EXPECT_EQ(record->GetTRefBegin() == record->GetTRefEnd(), kind == 0);
        if (isDeleted) {
            EXPECT_EQ(record->DelTRef(handle->Get()), 1u);
        }
        EXPECT_EQ(log.Take(), "");
    }
}

TEST(DORecordReferences, NullIsRefusedButNotByTheDeletionOfAPointer) {
    auto const record = Build(Example(0, 1));
    for (Handle const& handle : {Handle(), Handle(new Cr_TRef(static_cast<_cr_tref_t*>(nullptr)))}) {
        EXPECT_EQ(Refusal([&] { record->OwnTRef(handle); }), "9: NULL reference");
        EXPECT_EQ(Refusal([&] { record->AddTRef(handle); }), "9: NULL reference");
        EXPECT_EQ(Refusal([&] { record->CheckTRef(handle); }), "9: NULL reference");
        EXPECT_EQ(Refusal([&] { record->DelTRef(handle); }), "9: NULL reference");
    }
    EXPECT_EQ(Refusal([&] { record->CheckTRef(static_cast<_cr_tref_t const*>(nullptr)); }), "9: NULL reference");
    EXPECT_EQ(record->DelTRef(static_cast<_cr_tref_t const*>(nullptr)), 0u);
    for (cr_reftype_t const none : {cr_reftype_t(-1), CR_REFTYPE_END, cr_reftype_t(1 << 30)}) {
        EXPECT_EQ(record->GetNTRefs(none) + record->GetTRefTypeTotalSize(none), 0u);
        EXPECT_EQ(record->GetTRefTypeBegin(none), record->GetTRefTypeEnd(none));
        record->ClearTRefType(none);
    }
}

int IsOdd(unsigned long taskId, void*) {
    return taskId % 2 != 0;
}

// Each runs on a record with task 1, written down before the clock moves on.
TEST(DORecordReferences, TouchTheRecordOrNot) {
    using Operation = void (*)(DORecord&);
    constexpr std::pair<Operation, bool> kOperations[] = {
        {[](DORecord& record) { EXPECT_EQ(record.AddTaskID(1), 1); }, true},
        {[](DORecord& record) { EXPECT_EQ(record.DelDSID(1), 0u); }, true},
        {[](DORecord& record) { record.RemoveAllTRefs(); }, true},
        {[](DORecord& record) { record.RemoveAllTaskIDs(); }, true},
        {[](DORecord& record) { EXPECT_EQ(record.RemoveInactiveTaskIDs(IsOdd, nullptr), 0u); }, true},
        {[](DORecord& record) { record.AddSerializedTRefs(nullptr, 0); }, true},
        {[](DORecord& record) { record.ClearTRefType(CR_REFTYPE_TASKID); }, false},
        {[](DORecord& record) { record.convertToTRefs(); }, false},
        {[](DORecord& record) { EXPECT_EQ(record.AddTaskID(2, IsOdd, nullptr), 9); }, false},
        {[](DORecord& record) { EXPECT_FALSE(record.HasTaskID(2) || record.HasDSID(1)); }, false},
        {[](DORecord& record) { EXPECT_EQ(Refusal([&] {
                                              Load(record, {{11, 1}});
                                          }).substr(0, 3),
                                          "32:"); }, false},
    };
    for (auto const& [run, touches] : kOperations) {
        SCOPED_TRACE(&run - &kOperations[0].first);
        auto const record = Build(Example(5, 3));
        record->AddTaskID(1);
        record->GetHeader();
        unsigned int const before = test_clock::now++;
        run(*record);
        EXPECT_EQ(record->GetMTime(), touches ? test_clock::now : before);
    }
}

TEST(DORecordReferences, CallbacksSayWhichTasksStay) {
    auto const record = Build(Example(3, 1));
    for (unsigned long const id : {6, 2, 3, 4, 5}) {
        record->AddTaskID(id);
    }
    EXPECT_EQ(record->AddTaskID(8, IsOdd, nullptr), 9); // drops none of the others
    EXPECT_EQ(record->AddTaskID(8, nullptr, nullptr), 9);
    EXPECT_EQ(record->GetNtaskid(), 5u);
    References asked;
    auto const note = [](unsigned long taskId, void* context) {
        static_cast<References*>(context)->emplace_back(2, taskId);
        return taskId == 4 ? 0 : -1;
    };
    EXPECT_EQ(record->AddTaskID(7, note, &asked), 0);
    EXPECT_EQ(asked, References({{2, 7}, {2, 2}, {2, 3}, {2, 4}, {2, 5}, {2, 6}}));
    EXPECT_EQ(record->AddTaskID(7, note, &asked), 1);
    EXPECT_EQ(record->RemoveInactiveTaskIDs(IsOdd, nullptr), 2u);
    EXPECT_EQ(Visited(*record), References({{2, 3}, {2, 5}, {2, 7}}));
    EXPECT_EQ(record->getTRefsSize(), 30u);
    EXPECT_EQ(Refusal([&] { record->RemoveInactiveTaskIDs(nullptr, nullptr); }), "9: NULL reference");
}

// A record size that a raw setter made too small ends a removal half way: that reference stays, its bytes don't.
TEST(DORecordReferences, RemovalBelowTheBareSizeStopsThere) {
    for (bool const all : {false, true}) {
        auto const record = Build(Example(3, 1));
        record->AddTaskID(1);
        record->AddTaskID(2);
        record->setRecSize(104 + 10);
        unsigned int const before = test_clock::now++;
        EXPECT_EQ(Refusal([&] {
                      all ? record->RemoveAllTRefs()
                          : void(record->RemoveInactiveTaskIDs([](unsigned long, void*) { return 0; }, nullptr));
                  }),
                  kInvalidSize);
        EXPECT_EQ(Visited(*record), References({{2, 2}}));
        EXPECT_EQ(record->getTRefsSize(), 0u);
        EXPECT_EQ(record->getRecSize(), 104u);
        EXPECT_EQ(record->GetMTime(), before);
    }
}

TEST(DORecordReferences, TheIteratorOfNoRecordStays) {
    DORecord::tref_const_iterator_t none;
    EXPECT_EQ(none++, DORecord::tref_const_iterator_t());
    auto const record = Build(Example(3, 1)), other = Build(Example(3, 1));
    EXPECT_NE(none, record->GetTRefEnd());
    EXPECT_NE(record->GetTRefEnd(), other->GetTRefEnd());
    Load(*record, {{0, 1}, {1, 1}, {10, 7}, {10, 1}});
    auto position = record->GetTRefBegin();
    EXPECT_NE(++position, record->GetTRefBegin());
    ++ ++position;
    EXPECT_EQ(position, record->GetTRefEnd());
    EXPECT_EQ(++position, record->GetTRefEnd());
    EXPECT_EQ(Visited(*record), References({{1, 1}, {10, 1}, {10, 7}}));
}

TEST(DORecordReferences, ACorruptOneEndsTheLoadBehindThoseBeforeIt) {
    Bytes good = SpellReferences({{4, 9}, {4, 9}, {2, 1}});
    for (Bytes const& corrupt : {Bytes{11, 8, 0, 0, 0, 0, 0, 0, 0, 1}, {2, 4, 0, 0, 0, 1}, {4, 8}, {2}}) {
        for (int const trace : {0, 1}) {
            Bytes bytes = good;
            bytes.insert(bytes.end(), corrupt.begin(), corrupt.end());
            LogCapture log(trace);
            auto const record = Build(Example(3, 1));
            EXPECT_EQ(Refusal([&] {
                          record->AddSerializedTRefs(reinterpret_cast<char const*>(bytes.data()),
                                                     static_cast<unsigned int>(bytes.size()));
                      }),
                      "32: Received a buffer with corrupt typed references.");
            EXPECT_EQ(log.Take(), trace ? "trace 0: Invalid DO record: invalid typed reference at offset 22 from start "
                                          "of typed reference section: " +
                                              std::string(CRStatusToStringA(CR_STATUS_CORRUPT_RECORD)) + "\n"
                                        : "");
            RecordValues expected = Example(3, 1);
            expected.references = {{2, 1}, {4, 9}};
            EXPECT_EQ(StoredBytes(*record), Spell(expected).bytes);
            EXPECT_TRUE(record->HasTaskID(1) && record->HasDSID(9));
        }
    }
}

// The record grows and moves while it reads them.
TEST(DORecordReferences, LoadFromTheRecordsOwnSection) {
    for (bool const network : {false, true}) {
        RecordValues values = Example(2, 3);
        auto const record = Build<OpenRecord>(values);
        network ? record->HostToNetwork(0) : void();
        values.references = {{2, 1}, {6, 2}, {9, 3}};
        Hold(*record, Spell(values, network).bytes);
        record->AddSerializedTRefs(record->GetSerializedTRefs(), record->getTRefsSize());
        EXPECT_EQ(Visited(*record), values.references);
        EXPECT_EQ(record->getTRefsSize(), 60u); // that of the section and that of the loaded
        record->setTRefsSize(30);
        record->setRecSize(record->getRecSize() - 30);
        values.mtime = test_clock::now;
        EXPECT_EQ(StoredBytes(*record), Spell(values, network).bytes);
    }
}

TEST(DORecordReferences, ConversionTurnsAndOptionallyDropsTheTasks) {
    for (unsigned int const options : {0u, 1u, 2u, 3u}) {
        RecordValues values = Example(4, 1);
        auto const record = Build(values);
        record->AddTaskID(1);
        record->AddDSID(1);
        unsigned int const before = test_clock::now++;
        record->HostToNetwork(options);
        values.mtime = options & 1 ? test_clock::now : before;
        values.references = options & 1 ? References{{4, 1}} : References{{2, 1}, {4, 1}};
        EXPECT_EQ(StoredBytes(*record), Spell(values, true).bytes);
        record->AddTaskID(1);
        record->NetworkToHost(options);
        values.mtime = test_clock::now;
        EXPECT_EQ(StoredBytes(*record), Spell(values).bytes);
    }
}

TEST(DORecordLegacyReferences, BecomeTypedOnes) {
    std::pair<std::vector<unsigned long>, std::vector<unsigned int>> const arrays[] = {{{5, 3, ~0ul, 3}, {}},
                                                                                       {{}, {7, 7, 0xfffefdfc}},
                                                                                       {{5, 3}, {9, 8, 7, 6, 5, 4, 3}},
                                                                                       {{1}, {2}},
                                                                                       {{3, 3, 3, 3, 3, 3, 3, 3}, {}}};
    for (RecordValues values : Examples()) {
        for (auto const& [taskIds, dsids] : arrays) {
            SCOPED_TRACE(NameOf(values) + ", " + std::to_string(taskIds.size()) + " tasks");
            auto const record = Build<OpenRecord>(values);
            RecordValues legacy = values;
            legacy.taskIds = taskIds;
            legacy.dsids = dsids;
            Hold(*record, Spell(legacy).bytes);
            record->convertToTRefs();
            RecordValues expected = values;
            expected.mtime = test_clock::now;
            for (unsigned long const id : std::set<unsigned long>(taskIds.begin(), taskIds.end())) {
                expected.references.emplace_back(2, id);
            }
            for (unsigned int const id : std::set<unsigned int>(dsids.begin(), dsids.end())) {
                expected.references.emplace_back(4, id);
            }
            Bytes bytes = Spell(expected).bytes;
            EXPECT_EQ(StoredBytes(*record), bytes);
            bytes.resize(record->bufferSize);
            EXPECT_EQ(Buffer(*record), bytes);
        }
    }
}

// Both gaps are closed by the size of the task ids: DSIDs alone stay, and behind a task id two more of them go.
TEST(DORecordLegacyReferences, GapsAreClosedByTheSizeOfTheTasks) {
    for (auto const& [tasks, first] : {std::pair{0u, 0xe1e1e1e1u}, {1u, 0xe3e3e3e3u}, {2u, 0u}}) {
        RecordValues values = Example(2, 1);
        values.taskIds.assign(tasks, 1);
        values.dsids = {0xe1e1e1e1, 0xe2e2e2e2, 0xe3e3e3e3};
        SpelledRecord const spelled = Spell(values);
        auto const record = Build<OpenRecord>(values);
        Hold(*record, spelled.bytes);
        record->convertToTRefs();
        EXPECT_EQ(WordAt<unsigned int>(Buffer(*record), spelled.taskIds), first);
    }
}

TEST(DORecordLegacyReferences, RefusalsChangeNothing) {
    RecordValues values = Example(3, 1);
    values.taskIds = {1};
    values.dsids = {2};
    for (bool const owns : {true, false}) {
        for (unsigned int const claimed : {0u, 1000u}) {
            auto const record = Build<OpenRecord>(values);
            values.references = owns ? References{{2, 1}} : References();
            Bytes memory = Spell(values).bytes;
            owns ? Hold(*record, memory) : Borrow(*record, memory, OpenRecord::CopyMode::Borrowed);
            record->header->nds += claimed;
            Bytes const before = Buffer(*record);
            EXPECT_EQ(Refusal([&] { record->convertToTRefs(); }),
                      owns ? "71: Record with both old references and new typed references not supported."
                           : "9: Cannot construct a DORecord that does not own its internal buffer but has old task id "
                             "and dsid references.");
            EXPECT_EQ(Buffer(*record), before);
            record->setTRefsSize(0);
            record->header->nds = ~0u;
            EXPECT_EQ(Refusal([&] { record->convertToTRefs(); }).substr(0, 10), owns ? "9: invalid" : "9: Cannot ");
        }
    }
}

TEST(DORecordLegacyReferences, WithoutThemTheSectionIsLoadedInPlace) {
    for (bool const owns : {true, false}) {
        RecordValues values = Example(1, 3);
        auto const record = Build<OpenRecord>(values);
        values.references = {{0, 9}, {2, 3}, {4, 8}, {10, 1}};
        Bytes memory = Spell(values).bytes;
        owns ? Hold(*record, memory) : Borrow(*record, memory, OpenRecord::CopyMode::Fixed);
        record->convertToTRefs();
        EXPECT_EQ(Buffer(*record), Spell(values).bytes);
        EXPECT_EQ(StoredBytes(*record), Spell(values).bytes);
        EXPECT_EQ(record->GetNTRefs(), 4u);
        EXPECT_TRUE(record->HasTaskID(3) && record->HasDSID(8));
        record->convertToTRefs(); // the sets are filled now
        EXPECT_EQ(StoredBytes(*record), Spell(values).bytes);
    }
}

} // namespace
