// The offsets of a DO record, what a conversion of its byte order swaps, and the header accessors.

#include "support/clock.h"
#include "support/log_capture.h"
#include "support/record_memory.h"

#include <gtest/gtest.h>

namespace {

using Numbers = std::vector<unsigned long>;

// Every DO type with both fingerprint widths, in both orders.
class EveryRecord : public testing::TestWithParam<std::tuple<int, int, bool>> {
protected:
    bool const network = std::get<2>(GetParam());
    RecordValues const values = Example(static_cast<unsigned char>(std::get<0>(GetParam())),
                                        static_cast<unsigned char>(std::get<1>(GetParam())));

    // The values in every section.
    RecordValues All() const {
        RecordValues all = values;
        all.taskIds = {0xa1a2a3a4a5a6a7a8, 17, 1};
        all.dsids = {0xa9aaabac, 5};
        all.references = {{2, 18}, {4, 6}, {9, ~0ul}};
        return all;
    }
    // The record in the order of this case.
    std::unique_ptr<OpenRecord> Made() const {
        auto record = Build<OpenRecord>(values);
        network ? record->HostToNetwork(0) : void();
        return record;
    }
};
INSTANTIATE_TEST_SUITE_P(DORecord, EveryRecord,
                         testing::Combine(testing::Range(0, 6), testing::Values(1, 3), testing::Bool()));

TEST_P(EveryRecord, SectionsAreAtTheirOffsets) {
    SpelledRecord spelled = Spell(All(), network);
    auto* const header = reinterpret_cast<DORecordHeader*>(spelled.bytes.data());
    auto const at = [&](unsigned char const* p) { return static_cast<std::size_t>(p - spelled.bytes.data()); };
    unsigned int const width = FingerprintWidth(values.fptype),
                       count = static_cast<unsigned int>(values.segments.size());
    for (unsigned int i = 0; i < count; ++i) {
        std::size_t const entry = spelled.entries + i * ((spelled.dcids - spelled.entries) / count);
        EXPECT_EQ(Numbers({at(DORecordHeaderIndexOfSegment(header, i)), at(DORecordHeaderIndexOfSegmentSize(header, i)),
                           at(DORecordHeaderIndexOfSegmentOffset(header, i)),
                           at(DORecordHeaderIndexOfSegmentObjectOffset(header, i)),
                           at(DORecordHeaderIndexOfDCID(header, i))}),
                  Numbers({entry, entry + width, entry + width + 4, entry + width + 4, spelled.dcids + 8 * i}));
    }
    bool const bloom = values.dotype == 4;
    if (bloom) {
        EXPECT_EQ(DORecordHeaderGetBloomStart(header), &spelled.bytes[spelled.entries]);
    }
    EXPECT_EQ(DORecordHeaderGetBloom(header), bloom ? &spelled.bytes[spelled.entries + 4] : nullptr);
    EXPECT_EQ(Numbers({at(DORecordHeaderStartUDCID(header)), at(DORecordHeaderIndexOfUDCID(header, 1)),
                       at(DORecordHeaderIndexOfTaskId(header, 2)), at(DORecordHeaderIndexOfDataSelection(header, 1)),
                       at(DORecordHeaderStartTRefs(header)), DORecordHeaderGetPOID(header)}),
              Numbers({spelled.list, spelled.list + 8 + 16, spelled.taskIds + 16, spelled.dsids + 4, spelled.references,
                       values.CID}));
    EXPECT_EQ(DORecordHeaderSizeRaw(3, bloom ? 5 : 3, static_cast<unsigned int>(values.list.size()), 2, values.dotype,
                                    values.fptype, 26),
              spelled.bytes.size());
    header->bsize = 0;
    EXPECT_EQ(DORecordHeaderGetBloom(header), nullptr);
}

// Fingerprints, DCIDs, list entries and checksum, references, legacy arrays and their counts keep their bytes.
TEST_P(EveryRecord, ByteSwapsAndBack) {
    Bytes bytes = Spell(All(), network).bytes;
    for (auto* const swap : {DORecordHeaderHton, DORecordHeaderNtoh}) {
        for (bool const swapped : {true, false}) {
            swap(reinterpret_cast<DORecordHeader*>(bytes.data()));
            EXPECT_EQ(bytes, Spell(All(), network != swapped).bytes);
        }
    }
}

// Entries of an unknown DO type have fingerprints only.
TEST(DORecordConversion, KeepsEntriesOfUnknownTypes) {
    RecordValues const values = Example(1, 3);
    for (unsigned char const unknown : Bytes{6, 255}) {
        Bytes bytes = Spell(values).bytes, expected = Spell(values, true).bytes;
        bytes[0x4d] = expected[0x4d] = unknown;
        DORecordHeaderHton(reinterpret_cast<DORecordHeader*>(bytes.data()));
        EXPECT_EQ(bytes, expected);
    }
}

TEST_P(EveryRecord, GettersReturnHostValuesInEitherOrder) {
    auto const record = Made();
    RecordValues held = values;
    held.checktime = 0x61626364;
    Hold(*record, Spell(held, network).bytes);
    OpenRecord const& r = *record;
    std::size_t const size = Spell(held).bytes.size();
    EXPECT_EQ(
        Numbers({r.IsInNetworkOrder(), r.GetFlags(), r.GetHeaderSize(), r.getRecSize(), r.GetDOSize() + 104,
                 r.calcRecSize(), r.GetCheckTime(), r.GetDCID(), r.GetPOID(), r.GetSize(), r.GetSsize(), r.GetCrc(),
                 r.GetCTime(), r.GetMTime(), r.GetNfp(), r.GetNudcid(), r.GetBSize(), r.GetFPType(), r.GetDOType()}),
        Numbers({network, 2, size, size, size, size, 0x61626364, held.CID, held.CID, held.size, held.ssize, held.CRC,
                 held.ctime, held.mtime, held.segments.size(), held.list.size(), held.bitmap.size(), held.fptype,
                 held.dotype}));
    // The count as it is stored, in 32 bits.
    bool const reversed = network && !kBig;
    EXPECT_EQ(r.GetUDCIDSize(), (reversed ? 0x10000000u : 16u) * held.list.size() + 8);
    record->setTRefsSize(0x01020304);
    r.header->ntaskid = r.header->nds = 7;
    // The numbers of references are those of the sets, not of the header.
    EXPECT_EQ(Numbers({r.getTRefsSize(), r.GetSerializedTRefsSize(), r.GetNtaskid(), r.GetNds()}),
              Numbers({0x01020304, 0x01020304, 0, 0}));
    r.header->nudcid = 0;
    EXPECT_EQ(r.GetUDCIDSize(), 0u);
}

// The internal and the public setters of flags and fingerprint type differ on invalid values.
constexpr struct {
    void (*set)(OpenRecord&);
    std::size_t offset;
    unsigned int width;
    unsigned long stored; // with no width nothing is
    bool touches;
    char const* complaint; // thrown or logged
} kSetters[] = {
    {[](OpenRecord& r) { r.SetCheckTime(0xe1e2e3e4); }, 0x0c, 4, 0xe1e2e3e4, false, ""},
    {[](OpenRecord& r) { r.setDCID(0xe1e2e3e4e5e6e7e8); }, 0x10, 8, 0xe1e2e3e4e5e6e7e8, false, ""},
    {[](OpenRecord& r) { r.SetDCID(0xe1e2e3e4e5e6e7e8); }, 0x10, 8, 0xe1e2e3e4e5e6e7e8, true, ""},
    {[](OpenRecord& r) { r.setFPType(4); }, 0, 0, 0, false, "9: invalid fptype for DO"},
    {[](OpenRecord& r) { r.SetFPType(4); }, 0x4c, 1, 4, true, ""},
    {[](OpenRecord& r) { r.setFlags(6); }, 2, 2, 6, false, ""},
    {[](OpenRecord& r) { r.setFlags(1); }, 0, 0, 0, false, "error 9: Setting DORecord flags to invalid value 1\n"},
    {[](OpenRecord& r) { r.SetFlags(6); }, 2, 2, 6, true, ""},
    {[](OpenRecord& r) { r.SetFlags(16); }, 2, 2, 16, true, "error 9: Setting DORecord flags to invalid value 10\n"},
    {[](OpenRecord& r) { r.setTRefsSize(0xe1e2e3e4); }, 0x44, 4, 0xe1e2e3e4, false, ""},
    {[](OpenRecord& r) { r.setRecSize(103); }, 0, 0, 0, false, kInvalidSize},
    {[](OpenRecord& r) { r.handleUpdate(); }, 0, 0, 0, true, ""},
};

TEST_P(EveryRecord, SettersStoreInRecordOrder) {
    for (auto const& row : kSetters) {
        SCOPED_TRACE(&row - kSetters);
        LogCapture log;
        auto const record = Made();
        Bytes expected = Spell(values, network).bytes;
        Splice(expected, row.offset, Spelled(row.stored, row.width, network));
        Splice(expected, 0x30, Spelled(test_clock::now, row.touches ? 4 : 0, network));
        std::string const thrown = Refusal([&] { row.set(*record); });
        EXPECT_EQ(thrown + log.Take(), row.complaint);
        EXPECT_EQ(Buffer(*record), expected);
    }
}

TEST_P(EveryRecord, ConversionsSwapInEitherOrder) {
    auto const record = Made();
    record->HostToNetwork(0);
    EXPECT_TRUE(record->IsInNetworkOrder());
    Bytes const before = Buffer(*record);
    EXPECT_EQ(before, Spell(values, !network).bytes);
    // If the record's order is not the claimed one, operations that move sections fail.
    bool const agrees = !network || kBig;
    EXPECT_EQ(Refusal([&] { record->AddTaskID(1); }), agrees ? "" : kInvalidSize);
    EXPECT_EQ(Refusal([&] { record->convertToTRefs(); }), agrees ? "" : kInvalidSize);
    EXPECT_EQ(Buffer(*record) == before, !agrees);
}

TEST(DORecordSizes, AreCalculatedIn64Bits) {
    constexpr unsigned int kMost = 0xffffffff;
    constexpr unsigned long kOthers = kMost * (8ul + 16 + 4 + 1) + 8;
    EXPECT_EQ(DORecordHeaderSizeRaw(kMost, kMost, kMost, kMost, 3, 3, kMost), 104 + kMost * (44ul + 8) + kOthers);
    EXPECT_EQ(DORecordHeaderSizeWithBloom(kMost, kMost, kMost, kMost, 0, kMost), 104ul + kMost + kOthers);
    for (unsigned int const dotype : {0u, 5u, 6u, 255u, 259u}) {
        EXPECT_EQ(CRDOTypeIsValid(dotype) != 0, dotype < 6) << dotype;
    }
}

} // namespace
