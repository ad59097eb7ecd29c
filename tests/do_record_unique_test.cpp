// DORecord: the unique DCID list and the bloom filter.

#include "reader_agrees.h"
#include "support/clock.h"
#include "support/log_capture.h"
#include "support/record_memory.h"

#include <gtest/gtest.h>

namespace {

using Sizes = cr_dcid_size_map_t;

// The record without its list.
std::unique_ptr<OpenRecord> BuildBare(RecordValues values) {
    values.list.clear();
    return Build<OpenRecord>(values);
}

TEST(DORecordUnique, ListIsAscendingWithSums) {
    for (RecordValues values : Examples()) {
        if (values.dotype == 4) {
            continue;
        }
        SCOPED_TRACE(NameOf(values));
        unsigned long const first = values.list[0].first, second = values.list[1].first;
        std::swap(values.list[0].second, values.list[1].second);
        for (SegmentValues& segment : values.segments) {
            segment.dcid = segment.dcid == first ? second : first;
        }
        auto const record = BuildBare(values);
        for (int round = 0; round < 2; ++round) { // the second call changes nothing
            EXPECT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_OK);
            EXPECT_EQ(Buffer(*record), Spell(values).bytes);
        }
        EXPECT_EQ(record->GetSegmentUDCIDList(), DORecordHeaderStartUDCID(record->header));
        EXPECT_EQ(record->GetSegmentUDCID(1), second);
        // A shorter list leaves nothing of the longer one in the record.
        values.list = {{second, values.size}};
        values.segments[1].dcid = second;
        record->SetSegmentDCID(1, second);
        EXPECT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_OK);
        EXPECT_EQ(StoredBytes(*record), Spell(values).bytes);
    }
}

// Entries, checksum and the header's count are host values. Only the list's own count has the record's order. The
// checksum covers the bytes as stored.
TEST(DORecordUnique, NetworkOrderRecordGetsAHostListWithSwappedCount) {
    RecordValues const values = Example(3, 0);
    auto const record = BuildBare(values);
    record->HostToNetwork(0);
    EXPECT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_OK);
    SpelledRecord expected = Spell(values, true);
    Splice(expected.bytes, 0x3c, Spelled(2, 4, false));
    unsigned char const* const list = expected.bytes.data() + expected.list;
    Splice(expected.bytes, expected.list, Spelled(PlainAdler32(list + 4, list + 40), 4, false));
    EXPECT_EQ(Buffer(*record), expected.bytes);
}

// Long records are prefetched, and many containers are counted in a table: adjacent ids, multiples of the inverse of
// the hash's factor, which all select one row of eight, and some in runs.
TEST(DORecordUnique, LongRecordsAreListedAndByteSwapped) {
    for (int const dotype : {2, 3, 5}) {
        RecordValues values{.dotype = static_cast<unsigned char>(dotype)};
        Sizes bytes;
        for (unsigned long i = 0; i < 66000; ++i) {
            unsigned long const dcid = i % 3 == 0   ? 64 + i * 7919 % 9000
                                       : i % 3 == 1 ? (i % 50 + 1) * 0xf1de83e19937733d
                                                    : 64 + i / 500;
            unsigned int const size = static_cast<unsigned int>(i % 1000 + 1);
            values.segments.push_back({Bytes(16, static_cast<unsigned char>(i)), size, values.size, dcid});
            values.size += size;
            bytes[dcid] += size;
        }
        auto const record = Build<OpenRecord>(values);
        EXPECT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_OK);
        values.list.assign(bytes.begin(), bytes.end());
        EXPECT_TRUE(StoredBytes(*record) == Spell(values).bytes) << dotype;
        record->HostToNetwork(0);
        EXPECT_TRUE(StoredBytes(*record) == Spell(values, true).bytes) << dotype;
        fuzz::AgreeOnDORecord(StoredBytes(*record), kBig ? 0 : CR_DO_NETWORK_ORDER);
    }
}

TEST(DORecordUnique, RejectionsChangeNothing) {
    LogCapture log;
    for (RecordValues const& values : {Example(0, 0), Example(5, 3)}) {
        auto const record = BuildBare(values);
        record->SetSegmentDCID(1, 63);
        record->SetSegmentDCID(2, 5);
        Bytes const before = Buffer(*record);
        EXPECT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_INVALID);
        EXPECT_EQ(log.Take(), "error 9: AppendBloomAndUniqueDCIDList: Invalid DCID 63 for SO " +
                                  HexOf(values.segments[1].fingerprint) + " at index 1.\n");
        EXPECT_EQ(Buffer(*record), before);

        record->AddTaskID(1);
        Bytes const referenced = StoredBytes(*record);
        EXPECT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_INVALID);
        EXPECT_EQ(log.Take(), "error 9: AppendBloomAndUniqueDCIDList: TRef size should be zero bytes.\n");
        EXPECT_EQ(StoredBytes(*record), referenced);
    }
    // Neither a count beyond the buffer nor a list that a fixed buffer cannot hold is accepted.
    auto const record = BuildBare(Example(2, 0));
    record->header->nfp = 100;
    EXPECT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_INVALID);
    record->header->nfp = 3;
    Bytes memory = Buffer(*record), before = memory;
    for (auto const& [mode, status] :
         {std::pair{OpenRecord::CopyMode::Fixed, CR_STATUS_INVALID}, {OpenRecord::CopyMode::Borrowed, CR_STATUS_OK}}) {
        Borrow(*record, memory, mode);
        EXPECT_EQ(record->AppendBloomAndUniqueDCIDList(), status);
        EXPECT_EQ(memory, before);
    }
    EXPECT_EQ(std::tuple(record->ownsBuffer, record->copyMode, record->GetNudcid()),
              std::tuple(true, OpenRecord::CopyMode::Own, 2u));
    Bytes larger(4096, 0xee);
    Splice(larger, 0, before);
    Borrow(*record, larger, OpenRecord::CopyMode::Fixed);
    EXPECT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_OK);
    EXPECT_EQ(StoredBytes(*record), Spell(Example(2, 0)).bytes);
    EXPECT_EQ(log.Take(), "");
}

TEST(DORecordUnique, SizeListAddsTheRecordToItsContainer) {
    LogCapture log;
    RecordValues values = Example(3, 3);
    Sizes const listed(values.list.begin(), values.list.end());
    for (unsigned long const own : {values.list[0].first, 71ul}) {
        values.CID = own;
        auto const record = Build(values);
        Sizes expected = listed;
        expected[own] += record->GetHeaderSize() - 104;
        for (int order = 0; order < 2; ++order) {
            Sizes sizes{{1, 1}};
            EXPECT_EQ(record->GetUDCIDSizeList(sizes), CR_STATUS_OK);
            EXPECT_EQ(sizes, expected);
            record->HostToNetwork(0);
        }
    }
    Sizes sizes{{1, 1}};
    auto const record = BuildBare(values);
    EXPECT_EQ(record->GetUDCIDSizeList(sizes), CR_STATUS_CORRUPT_RECORD);
    EXPECT_EQ(log.Take(), "error 32: GetUDCIDSizeList: number of unique DCID can't be zero!\n");
    record->header->nudcid = 9;
    EXPECT_EQ(record->GetUDCIDSizeList(sizes), CR_STATUS_CORRUPT_RECORD);
    EXPECT_EQ(sizes, (Sizes{{1, 1}}));
    EXPECT_EQ(log.Take(), "");
}

// A bloom record as it is received: its list is big-endian. A container's last entry counts.
std::unique_ptr<OpenRecord> ReceivedBloom(unsigned int count) {
    RecordValues values = Example(4, 0);
    values.list = {{90, 5}, {80, 6}, {90, 7}};
    SpelledRecord record = Spell(values);
    Splice(record.bytes, record.list + 4, SpellListBody(values, true));
    Splice(record.bytes, record.list + 4, Spelled(count, 4, true));
    auto received = Build<OpenRecord>(values);
    Hold(*received, record.bytes);
    return received;
}

TEST(DORecordUnique, AppendBloomMergesAndSwapsTheLengthWordEachTime) {
    // However many entries the received count claims, no more are read than fit in the record.
    for (unsigned int const count : {2u, 3u, 4u, 0xffffffffu}) {
        auto const record = ReceivedBloom(count);
        Bytes const before = Buffer(*record);
        Bytes swapped = before;
        Splice(swapped, 80, Spelled(5, 4, true));
        for (Bytes const& expected : {swapped, before}) {
            Sizes sizes{{80, 1}, {1, 1}};
            EXPECT_EQ(record->AppendBloom(sizes), CR_STATUS_OK);
            EXPECT_EQ(sizes, (Sizes{{1, 1}, {80, 6}, {90, count == 2 ? 5ul : 7ul}}));
            EXPECT_EQ(Buffer(*record), expected);
        }
    }
    auto const exceeded = ReceivedBloom(3), segments = Build<OpenRecord>(Example(0, 0));
    exceeded->header->nudcid = 4;
    for (OpenRecord* const record : {exceeded.get(), segments.get()}) {
        Bytes const before = Buffer(*record);
        Sizes sizes{{1, 1}};
        EXPECT_EQ(record->AppendBloom(sizes), CR_STATUS_OK);
        EXPECT_EQ(std::pair(sizes, Buffer(*record)), std::pair(Sizes{{1, 1}}, before));
    }
    EXPECT_STREQ(zebLogLastMessageA(), "AppendBloom: invalid record size for DO");
}

TEST(DORecordUnique, ReceivedListIsSwappedInPlace) {
    for (unsigned int const count : {0u, 3u, 0xffffffffu}) { // without a list only the length word is swapped
        RecordValues values = Example(4, 0);
        values.list.clear();
        auto const record = count == 0 ? BuildBare(values) : ReceivedBloom(count);
        if (count != 0) {
            values.list = {{80, 6}, {90, 7}};
        }
        EXPECT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_OK);
        Bytes expected = Spell(values).bytes;
        Splice(expected, 80, Spelled(5, 4, true));
        EXPECT_EQ(StoredBytes(*record), expected);
    }
}

} // namespace
