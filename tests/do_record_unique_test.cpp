// DORecord: the unique DCID list and the bloom filter.

#include "support/clock.h"
#include "support/log_capture.h"
#include "support/record_memory.h"

#include <gtest/gtest.h>

namespace {

using Sizes = cr_dcid_size_map_t;

struct Types {
    unsigned char dotype, fptype;
};

// Three segments of 10, 20 and 30 bytes, without a list; its own container is 70.
RecordValues Small(unsigned char dotype, unsigned char fptype, std::vector<unsigned long> const& dcids) {
    RecordValues values = Example(dotype, fptype);
    values.CID = 70;
    values.ssize = 10;
    values.size = 0;
    values.list.clear();
    for (unsigned int i = 0; i < 3; ++i) {
        unsigned int const size = dotype < 2 ? 10 : 10 * (i + 1);
        values.segments[i] = {values.segments[i].fingerprint, size, values.size, dcids[i]};
        values.size += size;
    }
    return values;
}

TEST(DORecordUnique, ListOfTheSegmentsIsAppended) {
    for (RecordValues const& values : Examples()) {
        if (values.dotype == 4) {
            continue;
        }
        SCOPED_TRACE(NameOf(values));
        RecordValues without = values;
        without.list.clear();
        auto const record = Build<OpenRecord>(without);
        EXPECT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_OK);
        EXPECT_EQ(Buffer(*record), Spell(values).bytes);
        // Once more changes nothing, and a shorter list leaves nothing of the longer one in the record.
        EXPECT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_OK);
        EXPECT_EQ(Buffer(*record), Spell(values).bytes);
        RecordValues shorter = values;
        shorter.list = {{values.list[0].first, values.size}};
        shorter.segments[1].dcid = values.list[0].first;
        record->SetSegmentDCID(1, values.list[0].first);
        EXPECT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_OK);
        EXPECT_EQ(StoredBytes(*record), Spell(shorter).bytes);
    }
}

TEST(DORecordUnique, ListIsAscendingAndSummedUp) {
    for (Types const types : {Types{2, 1}, Types{3, 3}}) {
        RecordValues values = Small(types.dotype, types.fptype, {100, 70, 100});
        auto const record = Build<OpenRecord>(values);
        EXPECT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_OK);
        values.list = {{70, 20}, {100, 40}};
        EXPECT_EQ(Buffer(*record), Spell(values).bytes);
        EXPECT_TRUE(record->GetNudcid() == 2 && record->GetUDCIDSize() == 40 && record->GetSegmentUDCID(1) == 100);
        EXPECT_EQ(record->GetSegmentUDCIDList(), DORecordHeaderStartUDCID(record->header));
        EXPECT_EQ(record->GetMTime(), values.mtime);
    }
}

// Entries, checksum and the header's count are host values, the list's own count alone has the record's order, and the
// sum is that of the bytes as they are stored then.
TEST(DORecordUnique, NetworkOrderRecordGetsAHostListWithItsOwnCount) {
    RecordValues values = Small(3, 0, {100, 70, 100});
    auto const record = Build<OpenRecord>(values);
    record->HostToNetwork(0);
    EXPECT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_OK);
    values.list = {{70, 20}, {100, 40}};
    SpelledRecord expected = Spell(values, true);
    Splice(expected.bytes, 0x3c, Spelled(2, 4, false));
    unsigned char const* const list = expected.bytes.data() + expected.list;
    Splice(expected.bytes, expected.list, Spelled(PlainAdler32(list + 4, list + 40), 4, false));
    EXPECT_EQ(Buffer(*record), expected.bytes);
}

TEST(DORecordUnique, RefusalsChangeNothing) {
    LogCapture log;
    for (Types const types : {Types{0, 0}, Types{5, 3}}) {
        RecordValues const values = Small(types.dotype, types.fptype, {64, 63, 5});
        RecordValues good = values;
        for (SegmentValues& segment : good.segments) {
            segment.dcid = 64;
        }
        auto const record = Build<OpenRecord>(good);
        record->SetSegmentDCID(1, 63);
        Bytes const before = Buffer(*record);
        EXPECT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_INVALID);
        char text[65];
        crfp_digest_t digest;
        std::copy(values.segments[1].fingerprint.begin(), values.segments[1].fingerprint.end(), digest.bytes);
        CRFPDigestToString_r(&digest, values.fptype, text, sizeof text);
        EXPECT_EQ(log.Take(), std::string("error 9: AppendBloomAndUniqueDCIDList: Invalid DCID 63 for SO ") + text +
                                  " at index 1.\n");
        EXPECT_EQ(Buffer(*record), before);

        record->AddTaskID(1);
        Bytes const referenced = StoredBytes(*record);
        EXPECT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_INVALID);
        EXPECT_EQ(log.Take(), "error 9: AppendBloomAndUniqueDCIDList: TRef size should be zero bytes.\n");
        EXPECT_EQ(StoredBytes(*record), referenced);
    }
    // A count that leads out of the buffer is not followed; nor is a buffer that must stay exceeded.
    auto const record = Build<OpenRecord>(Small(2, 0, {64, 65, 66}));
    record->header->nfp = 100;
    EXPECT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_INVALID);
    record->header->nfp = 3;
    Bytes memory = Buffer(*record), before = memory;
    Borrow(*record, memory, OpenRecord::CopyMode::Fixed);
    EXPECT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_INVALID);
    EXPECT_EQ(memory, before);
    Borrow(*record, memory, OpenRecord::CopyMode::Borrowed);
    EXPECT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_OK);
    EXPECT_EQ(memory, before);
    EXPECT_TRUE(record->ownsBuffer && record->copyMode == OpenRecord::CopyMode::Own && record->GetNudcid() == 3);
    Bytes room(4096, 0xee);
    std::copy(before.begin(), before.end(), room.begin());
    Borrow(*record, room, OpenRecord::CopyMode::Fixed);
    EXPECT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_OK);
    RecordValues listed = Small(2, 0, {64, 65, 66});
    listed.list = {{64, 10}, {65, 20}, {66, 30}};
    EXPECT_EQ(StoredBytes(*record), Spell(listed).bytes);
    EXPECT_EQ(log.Take(), "");
}

TEST(DORecordUnique, SizeListCountsTheRecordInItsOwnContainer) {
    LogCapture log;
    for (bool const network : {false, true}) {
        for (unsigned long const own : {70ul, 71ul}) {
            RecordValues values = Small(3, 3, {100, 70, 100});
            values.CID = own;
            values.list = {{70, 20}, {100, 40}};
            auto const record = Build(values);
            unsigned long const bytes = record->GetHeaderSize() - 104;
            if (network) {
                record->HostToNetwork(0);
            }
            Sizes sizes{{1, 1}};
            EXPECT_EQ(record->GetUDCIDSizeList(sizes), CR_STATUS_OK);
            EXPECT_EQ(sizes,
                      (own == 70 ? Sizes{{70, 20 + bytes}, {100, 40}} : Sizes{{70, 20}, {71, bytes}, {100, 40}}));
        }
    }
    Sizes sizes{{1, 1}};
    auto const record = Build<OpenRecord>(Small(3, 3, {100, 70, 100}));
    EXPECT_EQ(record->GetUDCIDSizeList(sizes), CR_STATUS_CORRUPT_RECORD);
    EXPECT_EQ(log.Take(), "error 32: GetUDCIDSizeList: number of unique DCID can't be zero!\n");
    record->header->nudcid = 9;
    EXPECT_EQ(record->GetUDCIDSizeList(sizes), CR_STATUS_CORRUPT_RECORD);
    EXPECT_EQ(sizes, (Sizes{{1, 1}}));
    EXPECT_EQ(log.Take(), "");
}

// A bloom record as it is received: its list is big-endian, each entry's first value here the later one of two.
struct ReceivedBloom : OpenRecord {
    explicit ReceivedBloom(unsigned int count = 3) : OpenRecord(0, 0, 0, 0, 1, 1, 8, kBitmap, List(), 0, 4) {
        Bytes list;
        Put(list, 0x77777777, 4, true);
        Put(list, count, 4, true);
        for (auto const& [dcid, bytes] : {std::pair{90ul, 5ul}, {80ul, 6ul}, {90ul, 7ul}}) {
            Put(list, dcid, 8, true);
            Put(list, bytes, 8, true);
        }
        std::copy(list.begin(), list.end(), DORecordHeaderStartUDCID(header));
    }
    Bytes LengthWord() const { return Bytes(GetBloomStart(), GetBloomStart() + 4); }

    static constexpr unsigned char kBitmap[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    static char const* List() {
        static Bytes const list = SpellList({.list = {{1, 0}, {2, 0}, {3, 0}}}, false);
        return reinterpret_cast<char const*>(list.data());
    }
};

TEST(DORecordUnique, AppendBloomMergesAndTurnsTheLengthWordEachTime) {
    // However many entries the received count claims, no more are read than the record has room for.
    for (unsigned int const count : {2u, 3u, 4u, 0xffffffffu}) {
        ReceivedBloom record(count);
        Bytes before = Buffer(record);
        Sizes sizes{{80, 1}, {1, 1}};
        EXPECT_EQ(record.AppendBloom(sizes), CR_STATUS_OK);
        EXPECT_EQ(sizes, (Sizes{{1, 1}, {80, 6}, {90, count == 2 ? 5ul : 7ul}}));
        EXPECT_EQ(record.LengthWord(), Spelled(8, 4, true));
        EXPECT_EQ(record.AppendBloom(sizes), CR_STATUS_OK);
        EXPECT_EQ(Buffer(record), before);
    }
    for (unsigned char const dotype : {CR_DO_TYPE_ORIGINAL, CR_DO_TYPE_4_BYTE_OFFSET}) {
        auto const record = Build<OpenRecord>(Example(dotype, 0));
        Bytes const before = Buffer(*record);
        Sizes sizes{{1, 1}};
        EXPECT_EQ(record->AppendBloom(sizes), CR_STATUS_OK);
        EXPECT_TRUE(sizes == (Sizes{{1, 1}}) && Buffer(*record) == before);
    }
    ReceivedBloom record;
    record.header->nudcid = 4;
    Bytes const before = Buffer(record);
    Sizes sizes;
    EXPECT_EQ(record.AppendBloom(sizes), CR_STATUS_OK);
    EXPECT_TRUE(sizes.empty() && Buffer(record) == before);
}

TEST(DORecordUnique, ReceivedListIsTurnedInItsPlace) {
    for (unsigned int const count : {3u, 0xffffffffu}) {
        ReceivedBloom record(count);
        EXPECT_EQ(record.AppendBloomAndUniqueDCIDList(), CR_STATUS_OK);
        RecordValues values{.dotype = 4, .CID = 0, .CRC = 0, .ctime = 1, .mtime = 1};
        values.bitmap.assign(record.kBitmap, record.kBitmap + 8);
        values.list = {{80, 6}, {90, 7}};
        Bytes expected = Spell(values).bytes;
        Splice(expected, 80, Spelled(8, 4, true));
        EXPECT_EQ(StoredBytes(record), expected);
    }
    // Without a list only the length word turns.
    RecordValues bare = Example(4, 0);
    bare.list.clear();
    auto const record = Build<OpenRecord>(bare);
    EXPECT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_OK);
    Bytes expected = Spell(bare).bytes;
    Splice(expected, 80, Spelled(5, 4, true));
    EXPECT_EQ(Buffer(*record), expected);
}

} // namespace
