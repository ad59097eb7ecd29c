// DORecord: what its constructors and initialisers build, and the order in which they refuse.

#include "support/clock.h"
#include "support/record_memory.h"

#include <gtest/gtest.h>

#include <array>

namespace {

char const* AsText(Bytes const& list) {
    return reinterpret_cast<char const*>(list.data());
}

TEST(DORecordConstruction, BuildersMakeTheSpelledBytes) {
    for (RecordValues values : Examples()) {
        for (bool const withList : {true, false}) {
            SCOPED_TRACE(NameOf(values));
            if (!withList) {
                values.list.clear();
            }
            auto const record = Build<OpenRecord>(values);
            EXPECT_EQ(Buffer(*record), Spell(values).bytes);
            EXPECT_TRUE(record->ownsBuffer && record->spare == 0 && !record->networkOrder && !record->IsSubDO() &&
                        record->copyMode == OpenRecord::CopyMode::Own);
        }
    }
}

TEST(DORecordConstruction, ZeroTimesStandForNow) {
    for (RecordValues values : {Example(3, 3), Example(4, 0)}) {
        for (auto const [ctime, mtime] : {std::array{0u, 5u}, {5u, 0u}, {0u, 0u}}) {
            values.ctime = ctime;
            values.mtime = mtime;
            auto const record = Build(values);
            EXPECT_EQ(record->GetCTime(), ctime != 0 ? ctime : test_clock::now);
            EXPECT_EQ(record->GetMTime(), mtime != 0 ? mtime : test_clock::now);
        }
    }
}

// Given everything wrong at once, and then one thing less at a time.
TEST(DORecordConstruction, RefusesInOrder) {
    RecordValues const values = Example(3, 1);
    Bytes const entries = SpellEntries(values, false);
    Bytes list = SpellList(values, false);
    std::string const computed = std::to_string(WordAt<unsigned int>(list, 0));
    Splice(list, 0, Spelled(7, 4, false));
    std::array<unsigned long, 3> dcids{64, 64, 63};
    unsigned long const* dcidsGiven = nullptr;
    unsigned long const task = 1;
    unsigned long const* tasks = nullptr;
    unsigned long size = values.size - 1;
    unsigned int count = 0;
    unsigned char fptype = 4, dotype = 6;
    auto const record = Build<OpenRecord>(values);
    auto const init = [&] {
        return Refusal([&] {
            record->init(1, size, 2, 3, 4, 5, tasks, 1, entries.data(), count, dcidsGiven, AsText(list), fptype,
                         dotype);
        });
    };
    EXPECT_EQ(init(), "113: Invalid CR DO type");
    EXPECT_EQ(record->header, nullptr);
    dotype = 3;
    EXPECT_EQ(init(), "111: Invalid CR fingerprint type");
    fptype = 1;
    EXPECT_EQ(init(), "9: Got empty task ID list that should not be empty.");
    tasks = &task;
    EXPECT_EQ(init(), "9: Got empty SO list.");
    count = 3;
    EXPECT_EQ(init(), "9: Got empty DCID list that should not be empty.");
    dcidsGiven = dcids.data();
    EXPECT_EQ(init(), "9: Got invalid dcid 63 at index 2");
    dcids[2] = 64;
    // As many words as there are entries: the first entry whole, and nothing of the second.
    EXPECT_EQ(init(), "9: Computed CRC (" + computed + ") for unique DCID list doesn't match. [crc=7],[count=2],[" +
                          std::to_string(values.list[0].first) + "," + std::to_string(values.list[0].second) + ",]");
    list = SpellList(values, false);
    EXPECT_EQ(init().substr(0, 66), "89: Segment list of DORecord CR_DO_TYPE_8_BYTE_OFFSET is corrupt. ");
    EXPECT_EQ(record->header, nullptr);
    size = values.size;
    EXPECT_EQ(init(), "");
    EXPECT_EQ(record->GetNtaskid(), 1u);
}

TEST(DORecordConstruction, BloomInitialiserRefusesInOrder) {
    RecordValues const values = Example(4, 1);
    Bytes list = SpellList(values, false);
    list[8] ^= 1;
    unsigned long const task = 1;
    unsigned long const* tasks = nullptr;
    unsigned char const* bitmap = nullptr;
    unsigned int bsize = 0;
    unsigned char fptype = 4, dotype = 255;
    auto const record = Build<OpenRecord>(values);
    auto const init = [&] {
        return Refusal(
            [&] { record->initWithBloom(1, 2, 3, 4, 5, 6, tasks, 1, bsize, bitmap, AsText(list), fptype, dotype); });
    };
    EXPECT_EQ(init(), "113: Invalid CR DO type");
    dotype = 4;
    EXPECT_EQ(init(), "111: Invalid CR fingerprint type");
    fptype = 1;
    EXPECT_EQ(init(), "9: Got empty bloom filter bitmap.");
    bsize = 5;
    EXPECT_EQ(init(), "9: Got empty bloom filter bitmap.");
    bitmap = values.bitmap.data();
    EXPECT_EQ(init().substr(0, 17), "9: Computed CRC (");
    list[8] ^= 1;
    EXPECT_EQ(init(), "9: Got empty task ID list that should not be empty.");
    tasks = &task;
    EXPECT_EQ(init(), "");
    // The task id doesn't touch the time that was asked for.
    EXPECT_TRUE(record->GetMTime() == 6 && record->GetNtaskid() == 1 && record->getTRefsSize() == 10);
}

// A list of no entries is summed over its count alone, and leaves no section.
TEST(DORecordConstruction, EmptyListIsSummed) {
    RecordValues values = Example(2, 0);
    values.list.clear();
    Bytes list = SpellList(values, false);
    auto const build = [&] {
        return OpenRecord(values.CID, values.size, values.ssize, values.CRC, values.ctime, values.mtime,
                          SpellEntries(values, false).data(), 3, std::array<unsigned long, 3>{64, 64, 64}.data(),
                          AsText(list), 0, 2);
    };
    EXPECT_EQ(build().GetHeaderSize(), Spell(values).bytes.size());
    list[0] ^= 1;
    EXPECT_EQ(Refusal(build), "9: Computed CRC (262145) for unique DCID list doesn't match. [crc=" +
                                  std::to_string(WordAt<unsigned int>(list, 0)) + "],[count=0],[]");
}

TEST(DORecordConstruction, CornersOfTheTypes) {
    Bytes const bytes(64, 1);
    unsigned long const dcid = 64;
    auto const segments = [&](void const* entries, unsigned int count, unsigned char dotype) {
        return Refusal([&] { DORecord(1, 0, 0, 0, 0, 0, entries, count, &dcid, nullptr, 0, dotype); });
    };
    auto const bloom = [&](unsigned char const* bitmap, unsigned int bsize, unsigned char dotype) {
        return Refusal([&] { DORecord(1, 0, 0, 0, 0, 0, bsize, bitmap, nullptr, 0, dotype); });
    };
    EXPECT_EQ(segments(nullptr, 1, 3), "9: Got empty SO list.");
    EXPECT_EQ(segments(nullptr, 1, 77), "9: Got empty SO list.");
    EXPECT_EQ(segments(bytes.data(), 0, 3), "9: Got empty SO list.");
    EXPECT_EQ(segments(bytes.data(), 1, 4), "9: Got empty SO list.");
    EXPECT_EQ(segments(nullptr, 1, 4), "9: Got empty SO list.");
    EXPECT_EQ(segments(nullptr, 0, 4), "");
    EXPECT_EQ(bloom(nullptr, 1, 3), "9: Got empty SO list."); // though it has no segments
    EXPECT_EQ(bloom(nullptr, 1, 4), "9: Got empty bloom filter bitmap.");
    EXPECT_EQ(bloom(bytes.data(), 0, 4), "9: Got empty bloom filter bitmap.");
    EXPECT_EQ(bloom(bytes.data(), 0, 3), "");
    EXPECT_EQ(bloom(bytes.data(), 0xffffffff, 4), kInvalidSize);

    DORecord const empty(0, 0, 0, 0, 1, 1, nullptr, 0, nullptr, nullptr, 0, 4);
    EXPECT_EQ(StoredBytes(empty), Spell({.dotype = 4, .CID = 0, .CRC = 0, .ctime = 1, .mtime = 1}).bytes);
}

// The bitmap has no section then: nothing of it is left in the record.
TEST(DORecordConstruction, BloomBuilderWithAnotherType) {
    for (unsigned char dotype = 0; dotype < 6; dotype = static_cast<unsigned char>(dotype == 3 ? 5 : dotype + 1)) {
        Bytes const bitmap(40, 0xee);
        RecordValues values{.dotype = dotype, .fptype = 3, .size = 9, .list = {{70, 1}}};
        Bytes const list = SpellList(values, false);
        DORecord record(values.CID, 9, 0, values.CRC, values.ctime, values.mtime, 40, bitmap.data(), AsText(list), 3,
                        dotype);
        Bytes expected = Spell(values).bytes;
        Splice(expected, 0x48, Spelled(40, 4, false));
        EXPECT_EQ(StoredBytes(record), expected);
        record.AddTaskID(5);
        EXPECT_EQ(record.GetHeaderSize(), expected.size() + 10);
    }
}

// The arguments may lie in the buffer that the new record replaces.
TEST(DORecordConstruction, InitBuildsARecordAnew) {
    RecordValues const values = Example(5, 3);
    auto const record = Build<OpenRecord>(values);
    SpelledRecord const spelled = Spell(values);
    for (int round = 0; round < 2; ++round) {
        record->AddTaskID(1);
        auto const* const old = reinterpret_cast<unsigned char const*>(record->GetHeader());
        record->init(values.CID, values.size, values.ssize, values.CRC, values.ctime, values.mtime, nullptr, 0,
                     old + 80, 3, reinterpret_cast<unsigned long const*>(old + spelled.dcids),
                     reinterpret_cast<char const*>(old + spelled.list), 3, 5);
        EXPECT_EQ(StoredBytes(*record), spelled.bytes);
    }
    RecordValues const bloom = Example(4, 0);
    record->initWithBloom(bloom.CID, bloom.size, bloom.ssize, bloom.CRC, bloom.ctime, bloom.mtime, nullptr, 0, 5,
                          bloom.bitmap.data(), AsText(SpellList(bloom, false)), 0, 4);
    EXPECT_EQ(StoredBytes(*record), Spell(bloom).bytes);
    record->cleanupConstruction();
    EXPECT_EQ(record->header, nullptr);
}

} // namespace
