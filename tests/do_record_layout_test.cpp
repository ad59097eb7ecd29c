// Where everything lies in a DO record, what turns with its byte order, and the header accessors.

#include "support/clock.h"
#include "support/log_capture.h"
#include "support/record_memory.h"

#include <gtest/gtest.h>

namespace {

// Every DO type with both fingerprint widths, in both orders.
class EveryRecord : public testing::TestWithParam<std::tuple<int, int, bool>> {
protected:
    unsigned char const dotype = static_cast<unsigned char>(std::get<0>(GetParam()));
    unsigned char const fptype = static_cast<unsigned char>(std::get<1>(GetParam()));
    bool const network = std::get<2>(GetParam());
    RecordValues const values = Example(dotype, fptype);

    // The record in the order of this case.
    std::unique_ptr<OpenRecord> Made() const {
        auto record = Build<OpenRecord>(values);
        if (network) {
            record->HostToNetwork(0);
        }
        return record;
    }
};
INSTANTIATE_TEST_SUITE_P(DORecord, EveryRecord,
                         testing::Combine(testing::Range(0, 6), testing::Values(1, 3), testing::Bool()));

RecordValues WithEverySection(RecordValues values) {
    values.taskIds = {0xa1a2a3a4a5a6a7a8, 17, 1};
    values.dsids = {0xa9aaabac, 5};
    values.references = {{2, 18}, {4, 6}, {9, ~0ul}};
    return values;
}

TEST_P(EveryRecord, HasItsSectionsInPlace) {
    RecordValues const all = WithEverySection(values);
    SpelledRecord spelled = Spell(all, network);
    auto* const header = reinterpret_cast<DORecordHeader*>(spelled.bytes.data());
    auto const at = [&](unsigned char const* address) {
        return static_cast<std::size_t>(address - spelled.bytes.data());
    };
    unsigned int const width = FingerprintWidth(fptype);
    std::size_t const stride = all.segments.empty() ? 0 : (spelled.dcids - spelled.entries) / all.segments.size();
    for (unsigned int i = 0; i < all.segments.size(); ++i) {
        EXPECT_EQ(at(DORecordHeaderIndexOfSegment(header, i)), spelled.entries + i * stride);
        EXPECT_EQ(at(DORecordHeaderIndexOfSegmentSize(header, i)), spelled.entries + i * stride + width);
        EXPECT_EQ(at(DORecordHeaderIndexOfSegmentOffset(header, i)), spelled.entries + i * stride + width + 4);
        EXPECT_EQ(at(DORecordHeaderIndexOfSegmentObjectOffset(header, i)), spelled.entries + i * stride + width + 4);
        EXPECT_EQ(at(DORecordHeaderIndexOfDCID(header, i)), spelled.dcids + 8 * i);
    }
    if (dotype != 4) {
        EXPECT_EQ(at(DORecordHeaderIndexOfDCID(header, 3)), spelled.list);
        EXPECT_EQ(DORecordHeaderGetBloom(header), nullptr);
    } else {
        EXPECT_EQ(at(DORecordHeaderStartBFBitmap(header)), spelled.entries);
        EXPECT_EQ(at(DORecordHeaderGetBloomStart(header)), spelled.entries);
        EXPECT_EQ(at(DORecordHeaderGetBloom(header)), spelled.entries + 4);
        EXPECT_EQ(DORecordHeaderSizeWithBloom(3, 5, 1, 2, 77, 26), spelled.bytes.size());
    }
    EXPECT_EQ(at(DORecordHeaderStartUDCID(header)), spelled.list);
    EXPECT_EQ(at(DORecordHeaderIndexOfUDCID(header, 1)), spelled.list + 8 + 16);
    EXPECT_EQ(at(DORecordHeaderIndexOfTaskId(header, 2)), spelled.taskIds + 16);
    EXPECT_EQ(at(DORecordHeaderIndexOfDataSelection(header, 1)), spelled.dsids + 4);
    EXPECT_EQ(at(DORecordHeaderStartTRefs(header)), spelled.references);
    EXPECT_EQ(DORecordHeaderGetPOID(header), all.CID);
    EXPECT_EQ(DORecordHeaderSizeRaw(3, dotype == 4 ? 5 : 3, static_cast<unsigned int>(all.list.size()), 2, dotype,
                                    fptype, 26),
              spelled.bytes.size());
    header->bsize = 0;
    EXPECT_EQ(DORecordHeaderGetBloom(header), nullptr);
}

// Fingerprints, DCIDs, list entries and checksum, references, legacy arrays and their counts keep their bytes.
TEST_P(EveryRecord, TurnsByteByByteAndBack) {
    Bytes const before = Spell(WithEverySection(values), network).bytes;
    Bytes const turned = Spell(WithEverySection(values), !network).bytes;
    for (auto* const turn : {DORecordHeaderHton, DORecordHeaderNtoh}) {
        Bytes bytes = before;
        turn(reinterpret_cast<DORecordHeader*>(bytes.data()));
        EXPECT_EQ(bytes, turned);
        turn(reinterpret_cast<DORecordHeader*>(bytes.data()));
        EXPECT_EQ(bytes, before);
    }
}

TEST_P(EveryRecord, GivesHostValuesInEitherOrder) {
    auto const record = Made();
    RecordValues held = values;
    held.flags = 6;
    held.checktime = 0x61626364;
    Hold(*record, Spell(held, network).bytes);
    EXPECT_EQ(record->IsInNetworkOrder(), network);
    EXPECT_EQ(record->GetFlags(), 6);
    EXPECT_EQ(record->GetHeaderSize(), Spell(held).bytes.size());
    EXPECT_EQ(record->getRecSize(), Spell(held).bytes.size());
    EXPECT_EQ(record->GetDOSize(), Spell(held).bytes.size() - 104);
    EXPECT_EQ(record->calcRecSize(), Spell(held).bytes.size());
    EXPECT_EQ(record->GetCheckTime(), 0x61626364u);
    EXPECT_EQ(record->GetDCID(), held.CID);
    EXPECT_EQ(record->GetPOID(), held.CID);
    EXPECT_EQ(record->GetSize(), held.size);
    EXPECT_EQ(record->GetSsize(), held.ssize);
    EXPECT_EQ(record->GetCrc(), held.CRC);
    EXPECT_EQ(record->GetCTime(), held.ctime);
    EXPECT_EQ(record->GetMTime(), held.mtime);
    EXPECT_EQ(record->GetNfp(), held.segments.size());
    EXPECT_EQ(record->GetNudcid(), held.list.size());
    EXPECT_EQ(record->GetBSize(), held.bitmap.size());
    EXPECT_EQ(record->GetFPType(), fptype);
    EXPECT_EQ(record->GetDOType(), dotype);
    EXPECT_EQ(record->GetBloomStart(), Buffer(*record).empty() ? nullptr : DORecordHeaderStartBFBitmap(record->header));
    // The count as it is stored, in 32 bits.
    bool const reversed = network && std::endian::native == std::endian::little;
    EXPECT_EQ(record->GetUDCIDSize(), (reversed ? 0x10000000u : 16u) * held.list.size() + 8);
    record->setTRefsSize(0x01020304);
    record->header->ntaskid = record->header->nds = 7;
    EXPECT_EQ(record->getTRefsSize(), 0x01020304u);
    EXPECT_EQ(record->GetSerializedTRefsSize(), 0x01020304u);
    EXPECT_EQ(record->GetNtaskid() + record->GetNds(), 0u); // the sets, not the header
    record->header->nudcid = 0;
    EXPECT_EQ(record->GetUDCIDSize(), 0u);
}

struct SetterRow {
    char const* name;
    void (*set)(OpenRecord&);
    std::size_t offset;
    unsigned int width;
    unsigned long stored; // with no width nothing is
    bool touches;
    char const* log = "";
    char const* failure = "";
};

// The internal and the public setters of flags and fingerprint type differ on invalid values.
constexpr SetterRow kSetters[] = {
    {"setCheckTime", [](OpenRecord& r) { r.setCheckTime(0xe1e2e3e4); }, 0x0c, 4, 0xe1e2e3e4, false},
    {"SetCheckTime", [](OpenRecord& r) { r.SetCheckTime(0xe1e2e3e4); }, 0x0c, 4, 0xe1e2e3e4, false},
    {"setDCID", [](OpenRecord& r) { r.setDCID(0xe1e2e3e4e5e6e7e8); }, 0x10, 8, 0xe1e2e3e4e5e6e7e8, false},
    {"SetDCID", [](OpenRecord& r) { r.SetDCID(0xe1e2e3e4e5e6e7e8); }, 0x10, 8, 0xe1e2e3e4e5e6e7e8, true},
    {"setFPType", [](OpenRecord& r) { r.setFPType(2); }, 0x4c, 1, 2, false},
    {"setFPType 4", [](OpenRecord& r) { r.setFPType(4); }, 0, 0, 0, false, "", "9: invalid fptype for DO"},
    {"SetFPType 4", [](OpenRecord& r) { r.SetFPType(4); }, 0x4c, 1, 4, true},
    {"setFlags 6", [](OpenRecord& r) { r.setFlags(6); }, 2, 2, 6, false},
    {"SetFlags 6", [](OpenRecord& r) { r.SetFlags(6); }, 2, 2, 6, true},
    {"setFlags 1", [](OpenRecord& r) { r.setFlags(1); }, 0, 0, 0, false,
     "error 9: Setting DORecord flags to invalid value 1\n"},
    {"SetFlags 1", [](OpenRecord& r) { r.SetFlags(1); }, 2, 2, 1, true,
     "error 9: Setting DORecord flags to invalid value 1\n"},
    {"SetFlags fff9", [](OpenRecord& r) { r.SetFlags(0xfff9); }, 2, 2, 0xfff9, true,
     "error 9: Setting DORecord flags to invalid value fff9\n"},
    {"setTRefsSize", [](OpenRecord& r) { r.setTRefsSize(0xe1e2e3e4); }, 0x44, 4, 0xe1e2e3e4, false},
    {"setRecSize", [](OpenRecord& r) { r.setRecSize(0xe1e2e3e4); }, 4, 4, 0xe1e2e3e4, false},
    {"setRecSize 104", [](OpenRecord& r) { r.setRecSize(104); }, 4, 4, 104, false},
    {"setRecSize 103", [](OpenRecord& r) { r.setRecSize(103); }, 0, 0, 0, false, "", kInvalidSize},
    {"SetSubDO", [](OpenRecord& r) { r.SetSubDO(!r.IsSubDO()); }, 0, 0, 0, false},
    {"handleUpdate", [](OpenRecord& r) { r.handleUpdate(); }, 0, 0, 0, true},
};

TEST_P(EveryRecord, SettersStoreInItsOrderAndTouchOrNot) {
    for (SetterRow const& row : kSetters) {
        SCOPED_TRACE(row.name);
        LogCapture log;
        auto const record = Made();
        Bytes expected = Spell(values, network).bytes;
        auto const expect = [&](std::size_t offset, unsigned int width, unsigned long value) {
            Bytes field;
            Put(field, value, width, network);
            std::copy(field.begin(), field.end(), expected.begin() + static_cast<std::ptrdiff_t>(offset));
        };
        expect(row.offset, row.width, row.stored);
        expect(0x30, row.touches ? 4 : 0, test_clock::now);
        EXPECT_EQ(Refusal([&] { row.set(*record); }), row.failure);
        EXPECT_EQ(Buffer(*record), expected);
        EXPECT_EQ(log.Take(), row.log);
    }
}

TEST_P(EveryRecord, ConversionsDontLookAtTheOrder) {
    auto const record = Made();
    record->HostToNetwork(0);
    EXPECT_TRUE(record->IsInNetworkOrder());
    EXPECT_EQ(Buffer(*record), Spell(values, !network).bytes);
    // Where buffer and claim disagree, nothing that moves sections gets through.
    bool const agrees = !network || std::endian::native == std::endian::big;
    Bytes const before = Buffer(*record);
    EXPECT_EQ(Refusal([&] { record->AddTaskID(1); }), agrees ? "" : kInvalidSize);
    EXPECT_EQ(Refusal([&] { record->convertToTRefs(); }), agrees ? "" : kInvalidSize);
    EXPECT_EQ(Buffer(*record) == before, !agrees);
}

TEST(DORecordSizes, AreTakenIn64Bits) {
    for (unsigned char dotype = 0; dotype < 6; ++dotype) {
        EXPECT_EQ(DORecordHeaderSizeRaw(0, 0, 0, 0, dotype, 1, 0), 104u);
        EXPECT_EQ(DORecordHeaderSizeRaw(0, 0, 0, 0, dotype, 3, 0), 104u);
    }
    constexpr unsigned int kMost = 0xffffffff;
    constexpr unsigned long kOthers = kMost * (8ul + 16 + 4 + 1) + 8;
    EXPECT_EQ(DORecordHeaderSizeRaw(kMost, kMost, kMost, kMost, 3, 3, kMost), 104 + kMost * (44ul + 8) + kOthers);
    EXPECT_EQ(DORecordHeaderSizeWithBloom(kMost, kMost, kMost, kMost, 0, kMost), 104ul + kMost + kOthers);
    EXPECT_TRUE(CRDOTypeIsValid(0) && CRDOTypeIsValid(5));
    EXPECT_FALSE(CRDOTypeIsValid(6) || CRDOTypeIsValid(255) || CRDOTypeIsValid(259));
}

} // namespace
