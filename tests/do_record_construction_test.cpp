// DORecord: what its constructors and initialisers build, and the order in which they check arguments.

#include "support/clock.h"
#include "support/record_memory.h"

#include <gtest/gtest.h>

#include <array>

namespace {

char const* AsText(Bytes const& list) {
    return reinterpret_cast<char const*>(list.data());
}

TEST(DORecordConstruction, BuildersProduceExactBytes) {
    for (RecordValues values : Examples()) {
        SCOPED_TRACE(NameOf(values));
        for (int round = 0; round < 2; ++round, values.list.clear()) {
            auto const record = Build<OpenRecord>(values);
            EXPECT_EQ(Buffer(*record), Spell(values).bytes);
            EXPECT_EQ(std::tuple(record->ownsBuffer, record->spare, record->networkOrder, record->IsSubDO()),
                      std::tuple(true, 0, false, false));
            EXPECT_EQ(record->copyMode, OpenRecord::CopyMode::Own);
        }
        for (auto const [ctime, mtime] : {std::array{0u, 5u}, {5u, 0u}}) { // 0 means now
            values.ctime = ctime;
            values.mtime = mtime;
            EXPECT_EQ(Build(values)->GetCTime(), ctime != 0 ? ctime : test_clock::now);
            EXPECT_EQ(Build(values)->GetMTime(), mtime != 0 ? mtime : test_clock::now);
        }
    }
}

// All arguments are wrong at first. Each step names the next refusal and corrects its argument.
void ExpectInOrder(OpenRecord const& record, std::function<void()> const& init,
                   std::vector<std::pair<std::string, std::function<void()>>> const& steps) {
    for (auto const& [refusal, mend] : steps) {
        EXPECT_EQ(Refusal(init), refusal);
        EXPECT_EQ(record.header, nullptr);
        mend();
    }
    EXPECT_EQ(Refusal(init), "");
    EXPECT_EQ(record.GetNtaskid(), 1u);
}

// A list whose checksum is 7. The text shows as many of its words as it has entries: the first entry's both of two.
std::string WrongList(RecordValues const& values, Bytes& list, std::string const& shown) {
    std::string const computed = std::to_string(WordAt<unsigned int>(list, 0));
    Splice(list, 0, Spelled(7, 4, false));
    return "9: Computed CRC (" + computed +
           ") for unique DCID list doesn't match. [crc=7],[count=" + std::to_string(values.list.size()) + "],[" +
           shown + "]";
}

TEST(DORecordConstruction, ChecksArgumentsInOrder) {
    RecordValues const values = Example(3, 1), bloom = Example(4, 1);
    Bytes const entries = SpellEntries(values, false), good = SpellList(values, false),
                goodBloom = SpellList(bloom, false);
    auto const& [first, bytes] = values.list[0];
    Bytes list = good, bloomList = goodBloom;
    std::string const wrong = WrongList(values, list, std::to_string(first) + "," + std::to_string(bytes) + ",");
    std::string const wrongBloom = WrongList(bloom, bloomList, std::to_string(bloom.list[0].first) + ",");
    std::string const type = "113: Invalid CR DO type", fingerprint = "111: Invalid CR fingerprint type",
                      tasks = "9: Got empty task ID list that should not be empty.",
                      bitmap = "9: Got empty bloom filter bitmap.";
    std::array<unsigned long, 3> dcids{64, 64, 63};
    unsigned long const *dcidsGiven = nullptr, *taskIds = nullptr;
    unsigned char const* bits = nullptr;
    unsigned long size = values.size - 1;
    unsigned int count = 0, bsize = 0;
    unsigned char fptype = 4, dotype = 6;
    auto const record = Build<OpenRecord>(values);
    ExpectInOrder(*record,
                  [&] {
                      record->init(1, size, 2, 3, 4, 5, taskIds, 1, entries.data(), count, dcidsGiven, AsText(list),
                                   fptype, dotype);
                  },
                  {{type, [&] { dotype = 3; }},
                   {fingerprint, [&] { fptype = 1; }},
                   {tasks, [&] { taskIds = dcids.data(); }},
                   {"9: Got empty SO list.", [&] { count = 3; }},
                   {"9: Got empty DCID list that should not be empty.", [&] { dcidsGiven = dcids.data(); }},
                   {"9: Got invalid dcid 63 at index 2", [&] { dcids[2] = 64; }},
                   {wrong, [&] { list = good; }},
                   {"89: Segment list of DORecord CR_DO_TYPE_8_BYTE_OFFSET is corrupt. Original file size:" +
                        std::to_string(size) + ". End offset of last segment:" + std::to_string(values.size) + ". ",
                    [&] { size = values.size; }}});
    taskIds = nullptr;
    fptype = 4;
    dotype = 255;
    ExpectInOrder(
        *record,
        [&] { record->initWithBloom(1, 2, 3, 4, 5, 6, taskIds, 1, bsize, bits, AsText(bloomList), fptype, dotype); },
        {{type, [&] { dotype = 4; }},
         {fingerprint, [&] { fptype = 1; }},
         {tasks, [&] { taskIds = dcids.data(); }},
         {bitmap, [&] { bsize = 5; }},
         {bitmap, [&] { bits = bloom.bitmap.data(); }},
         {wrongBloom, [&] { bloomList = goodBloom; }}});
    EXPECT_EQ(record->GetMTime(), 6u); // the task id does not change the given time
}

TEST(DORecordConstruction, ReportsEmptyInputByType) {
    Bytes const bytes(64, 1);
    Bytes list = SpellList({}, false);
    unsigned long const dcid = 64;
    auto const segments = [&](void const* entries, unsigned int count, unsigned char dotype) {
        return Refusal([&] { DORecord(1, 0, 0, 0, 0, 0, entries, count, &dcid, nullptr, 0, dotype); });
    };
    auto const bloom = [&](unsigned char const* bitmap, unsigned int bsize, unsigned char dotype) {
        return Refusal([&] { DORecord(1, 0, 0, 0, 0, 0, bsize, bitmap, nullptr, 0, dotype); });
    };
    std::string const noSegments = "9: Got empty SO list.";
    EXPECT_EQ(segments(nullptr, 1, 3), noSegments);
    EXPECT_EQ(segments(nullptr, 1, 77), noSegments);
    EXPECT_EQ(segments(bytes.data(), 1, 4), noSegments);
    EXPECT_EQ(bloom(nullptr, 1, 3), noSegments); // though it has no segments
    EXPECT_EQ(bloom(nullptr, 1, 4), "9: Got empty bloom filter bitmap.");
    EXPECT_EQ(bloom(bytes.data(), 0, 3), "");
    EXPECT_EQ(bloom(bytes.data(), 0xffffffff, 4), kInvalidSize);

    // A list of no entries is summed over its count alone, and leaves no section.
    auto const empty = [&] { return DORecord(0, 0, 0, 0, 1, 1, nullptr, 0, nullptr, AsText(list), 0, 4); };
    EXPECT_EQ(StoredBytes(empty()), Spell({.dotype = 4, .CID = 0, .CRC = 0, .ctime = 1, .mtime = 1}).bytes);
    std::string const wrong = WrongList({}, list, "");
    EXPECT_EQ(Refusal(empty), wrong);
}

// No byte of the bitmap is in the record or its buffer.
TEST(DORecordConstruction, BloomBuilderOmitsTheBitmapOfOtherTypes) {
    Bytes const bitmap(90, 0xee);
    RecordValues const values{.dotype = 3, .fptype = 3, .size = 9, .list = {{70, 1}}};
    Bytes const list = SpellList(values, false);
    OpenRecord record(values.CID, 9, 0, values.CRC, values.ctime, values.mtime, 90, bitmap.data(), AsText(list), 3, 3);
    Bytes expected = Spell(values).bytes;
    Splice(expected, 0x48, Spelled(90, 4, false));
    EXPECT_EQ(StoredBytes(record), expected);
    Bytes whole = expected;
    whole.resize(104 + 90 + 24);
    EXPECT_EQ(Buffer(record), whole);
    record.AddTaskID(5);
    EXPECT_EQ(record.GetHeaderSize(), expected.size() + 10);
}

// The arguments may be in the buffer that the new record replaces. A sub-DO, whose segments may be large, stays one.
TEST(DORecordConstruction, InitRebuildsFromItsOwnBuffer) {
    RecordValues v = Example(5, 3), bloom = Example(4, 0);
    auto const record = Build<OpenRecord>(v);
    for (unsigned long* const bytes : {&v.size, &v.list[1].second}) {
        *bytes += 1ul << 31;
    }
    v.segments[1].size += 1u << 31;
    SpelledRecord const spelled = Spell(v);
    Hold(*record, spelled.bytes);
    record->SetSubDO(true);
    for (int round = 0; round < 2; ++round) {
        record->AddTaskID(1);
        auto const* const old = reinterpret_cast<unsigned char const*>(record->GetHeader());
        record->init(v.CID, v.size, v.ssize, v.CRC, v.ctime, v.mtime, nullptr, 0, old + 80, 3,
                     reinterpret_cast<unsigned long const*>(old + spelled.dcids),
                     reinterpret_cast<char const*>(old + spelled.list), 3, 5);
        EXPECT_EQ(StoredBytes(*record), spelled.bytes);
        EXPECT_EQ(std::pair(record->IsSubDO(), record->GetNTRefs()), std::pair(true, 0u));
    }
    record->initWithBloom(v.CID, bloom.size, bloom.ssize, v.CRC, v.ctime, v.mtime, nullptr, 0, 5, bloom.bitmap.data(),
                          AsText(SpellList(bloom, false)), 0, 4);
    EXPECT_EQ(StoredBytes(*record), Spell(bloom).bytes);
    EXPECT_TRUE(record->IsSubDO());
}

} // namespace
