// DORecord: segments, one by one and as a list.

#include "support/clock.h"
#include "support/record_memory.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

constexpr unsigned int kNone32 = 0xffffffff;
constexpr unsigned long kNone64 = 0xffffffffffffffff;

std::vector<RecordValues> SegmentExamples() {
    std::vector<RecordValues> examples = Examples();
    std::erase_if(examples, [](RecordValues const& values) { return values.dotype == 4; });
    return examples;
}

TEST(DORecordSegments, AccessorsAndRangeGiveTheValuesInEitherOrder) {
    for (RecordValues const& values : SegmentExamples()) {
        auto const record = Build(values);
        for (bool const network : {false, true}) {
            SCOPED_TRACE(NameOf(values) + (network ? ", network" : ", host"));
            auto segment = record->Segments().begin();
            for (unsigned int i = 0; i < 3; ++i, ++segment) {
                SegmentValues const& expected = values.segments[i];
                unsigned char const* const fingerprint = record->GetSegmentFP(i).bytes;
                EXPECT_TRUE(std::equal(expected.fingerprint.begin(), expected.fingerprint.end(), fingerprint));
                EXPECT_EQ(record->GetSegmentSize(i), expected.size);
                EXPECT_EQ(record->GetSegmentOffset(i), values.dotype == 3 ? expected.offset : kNone64);
                EXPECT_EQ(record->GetSegmentObjectOffset(i), values.dotype == 5 ? expected.offset : kNone32);
                EXPECT_EQ(record->GetSegmentDCID(i), expected.dcid);
                EXPECT_TRUE(record->GetSegmentDCIDList()[i] == expected.dcid);
                Bytes padded = expected.fingerprint;
                padded.resize(32);
                EXPECT_TRUE(std::equal(padded.begin(), padded.end(), (*segment).fingerprint.bytes));
                EXPECT_EQ((*segment).size, expected.size);
                EXPECT_EQ((*segment).offset, values.dotype == 3 || values.dotype == 5 ? expected.offset : kNone64);
                EXPECT_EQ(record->Segments()[i].dcid, expected.dcid);
            }
            EXPECT_TRUE(segment == record->Segments().end() && record->Segments().size() == 3);
            EXPECT_EQ(record->GetDOSize(), record->GetHeaderSize() - 104);
            record->HostToNetwork(0);
        }
    }
    DORecord const bloom(0, 0, 0, 0, 0, 0, nullptr, 0, nullptr, nullptr, 0, 4);
    EXPECT_TRUE(bloom.Segments().empty());
    EXPECT_EQ(bloom.GetSegmentSize(0), kNone32);
    EXPECT_EQ(bloom.GetSegmentOffset(0), kNone64);
    EXPECT_EQ(bloom.GetSegmentObjectOffset(0), kNone32);
}

// Sizes and offsets are stored raw, while their getters convert; fingerprints take 32 bytes and offsets their place
// whatever the types. In a record of one segment the last of them reach into the zeros at the record's end.
TEST(DORecordSegments, SettersStoreRawBytesAndSomeTouch) {
    Bytes const fingerprint(32, 0xaa);
    crfp_digest_t digest;
    std::copy(fingerprint.begin(), fingerprint.end(), digest.bytes);
    for (RecordValues values : SegmentExamples()) {
        values.segments.resize(1);
        values.list.clear();
        values.size = values.segments[0].size;
        std::size_t const width = FingerprintWidth(values.fptype);
        for (bool const network : {false, true}) {
            struct Row {
                std::function<void(DORecord&)> set;
                std::size_t offset;
                Bytes bytes;
                bool touches;
            };
            std::size_t const place = 80 + width + 4, dcid = Spell(values).dcids;
            Row const rows[] = {
                {[&](DORecord& r) { r.SetSegmentFP(0, digest); }, 80, fingerprint, false},
                {[](DORecord& r) { r.SetSegmentDCID(0, 5); }, dcid, Spelled(5, 8, false), false},
                {[](DORecord& r) { r.SetSegmentSize(0, 6); }, 80 + width,
                 values.dotype < 2 ? Bytes() : Spelled(6, 4, false), true},
                {[](DORecord& r) { r.SetSegmentOffset(0, 7); }, place, Spelled(7, 8, false), true},
                {[](DORecord& r) { r.SetSegmentObjectOffset(0, 8); }, place, Spelled(8, 4, false), true},
            };
            for (Row const& row : rows) {
                SCOPED_TRACE(NameOf(values) + " at " + std::to_string(row.offset));
                auto const record = Build<OpenRecord>(values);
                if (network) {
                    record->HostToNetwork(0);
                }
                Bytes expected = Spell(values, network).bytes;
                Splice(expected, row.offset, row.bytes);
                if (row.touches) {
                    Splice(expected, 0x30, Spelled(test_clock::now, 4, network));
                }
                row.set(*record);
                EXPECT_EQ(Buffer(*record), expected);
                EXPECT_EQ(record->GetSegmentFP(0).bytes[31], expected[111]);
            }
        }
    }
    auto const record = Build(Example(3, 0));
    record->HostToNetwork(0);
    record->SetSegmentSize(2, 0x01020304);
    record->SetSegmentOffset(2, 0x0102030405060708);
    EXPECT_EQ(record->GetSegmentSize(2), SwapBytes(0x01020304, 4));
    EXPECT_EQ(record->GetSegmentOffset(2), SwapBytes(0x0102030405060708, 8));
}

struct ListRow {
    unsigned char dotype;
    unsigned long size, ssize;
    std::vector<std::pair<unsigned int, unsigned long>> segments; // sizes and offsets
    std::string refusal, asSubDO;
};

RecordValues ValuesOf(ListRow const& row, unsigned char fptype) {
    RecordValues values{.dotype = row.dotype, .fptype = fptype, .size = row.size, .ssize = row.ssize};
    for (auto const& [size, offset] : row.segments) {
        values.segments.push_back({Bytes(FingerprintWidth(fptype), 1), size, offset, 0});
    }
    return values;
}

std::string Sum(char const* name, unsigned long size, unsigned long sum) {
    return std::string("89: Segment list of DORecord ") + name +
           " is corrupt. Original file size:" + std::to_string(size) + ". Sum of segm. sizes:" + std::to_string(sum) +
           ".";
}

std::string Wrong(std::string const& what) {
    return "89: Segment list of a DORecord is corrupt. Segment " + what +
           " Data is probably in wrong byte order (host vs. network order)";
}

std::vector<ListRow> ListRows() {
    std::string const original = "89: Segment list of DORecord CR_DO_TYPE_ORIGINAL|CR_DO_TYPE_NO_SIZE is corrupt. "
                                 "Original file size:";
    std::string const offsets = "89: Segment list of DORecord CR_DO_TYPE_8_BYTE_OFFSET is corrupt. ";
    std::string const none = original + "1. Segm. size times segm. count:0.";
    std::string const large = Wrong("1 has size 2147483648 (> 2 GiB).");
    std::string const far = Wrong("0 has offset 9223372036854775808 (> 8192 PetaB).");
    unsigned int const half = 0x80000000;
    std::vector<ListRow> rows{
        {3, 0, 0, {}, "", ""},
        {3, 9, 0, {}, "", ""},
        {3, 15, 0, {{10, 0}, {5, 10}}, "", ""},
        {3, 99, 0, {{10, 3}, {5, 20}}, "", ""},
        {3, 15, 0, {{10, 0}, {5, 9}}, offsets + "Offset of segm. 1:9. Previous segm. end:10.", "same"},
        {3, 14, 0, {{10, 0}, {5, 10}}, offsets + "Original file size:14. End offset of last segment:15. ", "same"},
        {3, 0, 0, {{9, 1ul << 63}, {half, 0}}, large, far},
        {3, 0, 0, {{9, 1ul << 63}, {9, 0}}, far, "same"},
        {3, 1ul << 40, 0, {{9, 0}, {half, 9}}, large, ""},
        {3, 1ul << 40, 0, {{9, 0}, {half - 1, 9}}, "", ""},
    };
    for (unsigned char const dotype : {CR_DO_TYPE_ORIGINAL, CR_DO_TYPE_NO_SIZE}) {
        rows.push_back({dotype, 0, 4, {}, "", ""});
        rows.push_back({dotype, 1, 4, {}, none, "same"});
        rows.push_back({dotype, 10, 4, {{}, {}, {}}, "", ""});
        rows.push_back({dotype, 1, 4, {{}, {}, {}}, "", ""}); // nothing checks how short the last one is
        rows.push_back({dotype, 13, 4, {{}, {}, {}}, original + "13. Segm. size times segm. count:12.", "same"});
    }
    for (auto const& [dotype, name] : {std::pair{2, "CR_DO_TYPE_NO_OFFSET"}, {5, "CR_DO_TYPE_4_BYTE_OFFSET"}}) {
        auto const type = static_cast<unsigned char>(dotype);
        rows.push_back({type, 0, 0, {}, "", ""});
        rows.push_back({type, 1, 0, {}, Sum(name, 1, 0), "same"});
        rows.push_back({type, 15, 0, {{10, 77}, {5, 0}}, "", ""}); // object offsets are not looked at
        rows.push_back({type, 14, 0, {{10, 0}, {5, 10}}, Sum(name, 14, 15), "same"});
        rows.push_back({type, 0x100000000, 0, {{half, 0}, {half, 0}}, Wrong("0 has size 2147483648 (> 2 GiB)."), ""});
        rows.push_back({type, 9, 0, {{1, 0}, {half, 0}}, large, Sum(name, 9, 0x80000001)});
    }
    return rows;
}

// On a record that was built for its shape and then given the row's numbers.
TEST(DORecordSegments, ListCheckSaysWhatIsWrongInEitherOrder) {
    for (ListRow const& row : ListRows()) {
        for (bool const wide : {false, true}) {
            auto const fptype = static_cast<unsigned char>(wide ? 3 : 0);
            RecordValues const values = ValuesOf(row, fptype);
            RecordValues plain = values;
            plain.size = 0;
            for (SegmentValues& segment : plain.segments) {
                segment.size = 0;
                segment.offset = 0;
            }
            Bytes const form = SpellForm(plain, false);
            for (bool const subDO : {false, true}) {
                SCOPED_TRACE(NameOf(values) + ": " + row.refusal);
                OpenRecord record(row.dotype, fptype, nullptr, 0, form.data(), form.size(), subDO);
                Bytes const bytes = Spell(values).bytes;
                std::copy_n(bytes.data() + 0x18, 16, reinterpret_cast<unsigned char*>(record.header) + 0x18);
                std::copy(bytes.begin() + 80, bytes.end(), reinterpret_cast<unsigned char*>(record.header) + 80);
                std::string const expected = subDO && row.asSubDO != "same" ? row.asSubDO : row.refusal;
                EXPECT_EQ(Refusal([&] { record.checkSegmentList(); }), expected);
                record.HostToNetwork(0);
                Bytes const before = Buffer(record);
                EXPECT_EQ(Refusal([&] { record.checkSegmentList(); }), expected);
                EXPECT_EQ(Buffer(record), before);
            }
        }
    }
}

TEST(DORecordSegments, DerivedSizesAreCutTo32Bits) {
    unsigned long const dcids[] = {64, 64};
    Bytes const entries(32);
    DORecord const record(0, 0x300000005, 0x200000003, 0, 0, 0, entries.data(), 2, dcids, nullptr, 0, 0);
    EXPECT_EQ(record.GetSegmentSize(0), 3u);
    EXPECT_EQ(record.GetSegmentSize(1), 2u);
}

TEST(DORecordSegments, ChecksAlone) {
    auto const record = Build<OpenRecord>(Example(2, 0));
    // The offset that a record of this type does not have is taken for an implausible one.
    EXPECT_EQ(Refusal([&] { record->checkSegmentOffsetEndiannes(); }),
              Wrong("0 has offset 18446744073709551615 (> 8192 PetaB)."));
    EXPECT_EQ(Refusal([&] { record->checkSegmentSizeEndiannes(); }), "");
    record->SetSegmentSize(2, 0xfffffffe);
    EXPECT_EQ(Refusal([&] { record->checkSegmentSizeEndiannes(); }), Wrong("2 has size 4294967294 (> 2 GiB)."));
    record->SetSubDO(true);
    EXPECT_EQ(Refusal([&] { record->checkSegmentSizeEndiannes(); }), "");
    EXPECT_EQ(Refusal([] { Build(Example(4, 0))->checkSegmentOffsetEndiannes(); }), "");
    record->header->dotype = 255;
    EXPECT_EQ(Refusal([&] { record->checkSegmentList(); }), "9: invalid DO type");
    record->header->dotype = 6;
    EXPECT_EQ(Refusal([&] { record->checkSegmentList(); }), "");
    record->header->dotype = 3;
    record->header->nfp = 99;
    EXPECT_EQ(Refusal([&] { record->checkSegmentList(); }), kInvalidSize);
}

} // namespace
