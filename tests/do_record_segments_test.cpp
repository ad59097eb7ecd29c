// DORecord: segments, one by one and as a list.

#include "support/clock.h"
#include "support/record_memory.h"

#include <crrecord/DORecordView.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <ranges>
#include <tuple>

namespace {

static_assert(std::random_access_iterator<DOSegmentRange::iterator>);
static_assert(std::ranges::view<DOSegmentRange> && std::ranges::borrowed_range<DOSegmentRange>);
static_assert(std::forward_iterator<DOReferenceRange::iterator>);
static_assert(std::forward_iterator<DORecord::tref_const_iterator_t>);

constexpr unsigned int kNone32 = 0xffffffff;
constexpr unsigned long kNone64 = 0xffffffffffffffff;
constexpr std::tuple kNoNumbers(kNone32, kNone64, kNone32);

auto NumbersOf(DORecord const& record, unsigned int segment) {
    return std::tuple(record.GetSegmentSize(segment), record.GetSegmentOffset(segment),
                      record.GetSegmentObjectOffset(segment));
}

constexpr auto FieldsOf = [](DOSegment const& segment) {
    return std::tuple(segment.fingerprint.data, segment.fingerprint.size, segment.size, segment.offset, segment.dcid);
};

TEST(DORecordSegments, AccessorsReturnValuesInEitherOrder) {
    for (RecordValues const& values : Examples()) {
        auto const record = Build(values);
        for (bool const network : {false, true}) {
            SCOPED_TRACE(NameOf(values) + (network ? ", network" : ", host"));
            auto segment = record->Segments().begin();
            for (unsigned int i = 0; i < values.segments.size(); ++i, ++segment) {
                auto const& [fingerprint, size, offset, dcid] = values.segments[i];
                EXPECT_TRUE(std::equal(fingerprint.begin(), fingerprint.end(), record->GetSegmentFP(i).bytes));
                EXPECT_EQ(NumbersOf(*record, i), std::tuple(size, values.dotype == 3 ? offset : kNone64,
                                                            values.dotype == 5 ? offset : kNone32));
                EXPECT_EQ(record->GetSegmentDCID(i), dcid);
                EXPECT_EQ(static_cast<unsigned long>(record->GetSegmentDCIDList()[i]), dcid);
                auto const seen = *segment;
                Bytes padded = fingerprint;
                padded.resize(32);
                EXPECT_EQ(Bytes(seen.fingerprint.data, seen.fingerprint.data + seen.fingerprint.size), fingerprint);
                crfp_digest_t const copy = seen.fingerprint.Copy();
                EXPECT_EQ(Bytes(copy.bytes, copy.bytes + sizeof copy), padded);
                EXPECT_EQ(seen.offset, values.dotype == 3 || values.dotype == 5 ? offset : kNone64);
                EXPECT_EQ(std::pair(seen.size, record->Segments()[i].dcid), std::pair(size, dcid));
                EXPECT_EQ(seen.fingerprint == record->Segments()[0].fingerprint, i == 0);
                EXPECT_EQ((seen.fingerprint != DOFingerprint{seen.fingerprint.data, 16}), values.fptype == 3);
                DOSegmentSource const source = DOSegmentSource::Of(record->GetHeader());
                EXPECT_EQ(std::pair(source.Size(i), source.Offset(i)), std::pair(seen.size, seen.offset));
            }
            EXPECT_TRUE(segment == record->Segments().end());
            EXPECT_EQ(record->Segments().size(), values.segments.size());
            std::vector<DOSegment> visited;
            ForEachSegment(record->Segments(), [&](DOSegment const& each) { visited.push_back(each); });
            EXPECT_TRUE(std::ranges::equal(visited, record->Segments(), {}, FieldsOf, FieldsOf));
            record->HostToNetwork(0);
        }
    }
    auto const bloom = Build(Example(4, 0));
    EXPECT_EQ(NumbersOf(*bloom, 0), kNoNumbers);
}

// Setters of sizes and offsets store them raw; the getters convert. Setters write 32 bytes of a fingerprint, and
// offsets, for every type. In a record of one segment these reach into the zeros at its end.
TEST(DORecordSegments, SettersStoreRawBytes) {
    crfp_digest_t digest;
    std::fill_n(digest.bytes, 32, static_cast<unsigned char>(0xaa));
    for (RecordValues values : Examples()) {
        if (values.dotype == 4) {
            continue;
        }
        values.segments.resize(1);
        values.list.clear();
        values.size = values.segments[0].size;
        std::size_t const size = 80 + FingerprintWidth(values.fptype), offset = size + 4;
        std::tuple<std::function<void(DORecord&)>, std::size_t, Bytes, bool> const rows[] = {
            {[&](DORecord& r) { r.SetSegmentFP(0, digest); }, 80, Bytes(32, 0xaa), false},
            {[](DORecord& r) { r.SetSegmentDCID(0, 5); }, Spell(values).dcids, Spelled(5, 8, false), false},
            {[](DORecord& r) { r.SetSegmentSize(0, 6); }, size, Spelled(6, values.dotype < 2 ? 0 : 4, false), true},
            {[](DORecord& r) { r.SetSegmentOffset(0, 7); }, offset, Spelled(7, 8, false), true},
            {[](DORecord& r) { r.SetSegmentObjectOffset(0, 8); }, offset, Spelled(8, 4, false), true}};
        for (bool const network : {false, true}) {
            for (auto const& [set, place, bytes, touches] : rows) {
                SCOPED_TRACE(NameOf(values) + " at " + std::to_string(place));
                auto const record = Build<OpenRecord>(values);
                if (network) {
                    record->HostToNetwork(0);
                }
                Bytes expected = Spell(values, network).bytes;
                Splice(expected, place, bytes);
                Splice(expected, 0x30, Spelled(touches ? test_clock::now : values.mtime, 4, network));
                set(*record);
                EXPECT_EQ(Buffer(*record), expected);
            }
        }
    }
}

struct ListRow {
    unsigned char dotype;
    unsigned long size, ssize;
    std::vector<std::pair<unsigned int, unsigned long>> segments; // sizes and offsets
    std::string refusal, asSubDO;
};

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
    std::string const large = Wrong("1 has size 2147483648 (> 2 GiB).");
    std::string const far = Wrong("0 has offset 9223372036854775808 (> 8192 PetaB).");
    unsigned int const half = 0x80000000;
    std::vector<ListRow> rows{
        {3, 9, 0, {}, "", ""},
        {3, 15, 0, {{10, 0}, {5, 10}}, "", ""},
        {3, 99, 0, {{10, 3}, {5, 20}}, "", ""},
        {3, 15, 0, {{10, 0}, {5, 9}}, offsets + "Offset of segm. 1:9. Previous segm. end:10.", "same"},
        {3, 15, 0, {{10, 0}, {5, 9}, {5, 3}}, offsets + "Offset of segm. 1:9. Previous segm. end:10.", "same"},
        {3, 14, 0, {{10, 0}, {5, 10}}, offsets + "Original file size:14. End offset of last segment:15. ", "same"},
        {3, 0, 0, {{9, 1ul << 63}, {half, 0}}, large, far},
        {3, 0, 0, {{9, 1ul << 63}, {9, 0}}, far, "same"},
        {3, 1ul << 40, 0, {{9, 0}, {half, 9}}, large, ""},
        {3, 1ul << 40, 0, {{9, 0}, {half - 1, 9}}, "", ""},
        {3, 1ul << 63, 0, {{9, 0}, {1, (1ul << 63) - 1}}, "", ""},
    };
    for (unsigned char const dotype : {CR_DO_TYPE_ORIGINAL, CR_DO_TYPE_NO_SIZE}) {
        rows.push_back({dotype, 1, 4, {}, original + "1. Segm. size times segm. count:0.", "same"});
        rows.push_back({dotype, 10, 4, {{}, {}, {}}, "", ""});
        rows.push_back({dotype, 1, 4, {{}, {}, {}}, "", ""}); // the last one may have any size
        rows.push_back({dotype, 13, 4, {{}, {}, {}}, original + "13. Segm. size times segm. count:12.", "same"});
        rows.push_back(
            {dotype, 1, 1ul << 63, {{}, {}}, original + "1. Segm. size times segm. count:0.", "same"}); // 2^64
        rows.push_back({dotype, 0, 1ul << 63, {{}, {}}, "", ""});
    }
    for (auto const& [dotype, name] : {std::pair{2, "CR_DO_TYPE_NO_OFFSET"}, {5, "CR_DO_TYPE_4_BYTE_OFFSET"}}) {
        auto const type = static_cast<unsigned char>(dotype);
        rows.push_back({type, 1, 0, {}, Sum(name, 1, 0), "same"});
        rows.push_back({type, 15, 0, {{10, 77}, {5, 0}}, "", ""}); // object offsets are not checked
        rows.push_back({type, 14, 0, {{10, 0}, {5, 10}}, Sum(name, 14, 15), "same"});
        rows.push_back({type, 0x100000000, 0, {{half, 0}, {half, 0}}, Wrong("0 has size 2147483648 (> 2 GiB)."), ""});
        rows.push_back({type, 9, 0, {{1, 0}, {half, 0}}, large, Sum(name, 9, 0x80000001)});
    }
    return rows;
}

// Wider fingerprints put the last of eight segments, and the lists after them, outside of the buffer.
TEST(DORecordSegments, AccessorsStayInTheBuffer) {
    crfp_digest_t const digest{{0xaa}}, zeros{};
    for (unsigned char const dotype : Bytes{2, 3, 5}) {
        RecordValues values{.dotype = dotype, .size = 8};
        for (unsigned int i = 0; i < 8; ++i) {
            values.segments.push_back({Bytes(16, 0xee), 1, i, 64});
        }
        auto const record = Build<OpenRecord>(values);
        record->SetFPType(CR_FP_TYPE_SHA256);
        record->header->nudcid = 1;
        Bytes const before = Buffer(*record);
        EXPECT_TRUE(std::equal(zeros.bytes, zeros.bytes + 32, record->GetSegmentFP(7).bytes));
        EXPECT_EQ(NumbersOf(*record, 7), kNoNumbers);
        EXPECT_EQ(std::pair(record->GetSegmentDCID(7), record->GetSegmentUDCID(0)), std::pair(0ul, 0ul));
        EXPECT_EQ(Refusal([&] { record->SetSegmentFP(7, digest); }), kInvalidSize);
        EXPECT_EQ(Refusal([&] { record->SetSegmentSize(7, 1); }), kInvalidSize);
        EXPECT_EQ(Refusal([&] { record->SetSegmentOffset(7, 1); }), kInvalidSize);
        EXPECT_EQ(Refusal([&] { record->SetSegmentObjectOffset(7, 1); }), kInvalidSize);
        EXPECT_EQ(Refusal([&] { record->SetSegmentDCID(7, 64); }), kInvalidSize);
        EXPECT_EQ(Buffer(*record), before);
        record->bufferSize = 80 + 32;
        EXPECT_EQ(record->GetSegmentFP(0).bytes[0], 0xee);
        EXPECT_EQ(Refusal([&] { record->SetSegmentFP(0, digest); }), "");
        record->bufferSize = 80 + 31;
        EXPECT_EQ(record->GetSegmentFP(0).bytes[0], 0);
        EXPECT_EQ(Refusal([&] { record->SetSegmentFP(0, digest); }), kInvalidSize);
    }
}

TEST(DORecordSegments, BuildersAndReadersApplyOneListCheck) {
    for (ListRow const& row : ListRows()) {
        for (unsigned char const fptype : std::array<unsigned char, 2>{0, 3}) {
            RecordValues values{.dotype = row.dotype, .fptype = fptype, .size = row.size, .ssize = row.ssize};
            for (auto const& [size, offset] : row.segments) {
                values.segments.push_back({Bytes(FingerprintWidth(fptype), 1), size, offset, 64});
            }
            for (bool const subDO : {false, true}) {
                SCOPED_TRACE(NameOf(values) + ": " + row.refusal);
                auto const record = Build<OpenRecord>(Example(4, 0));
                Bytes const form = SpellForm(values, false), stored = Spell(values).bytes;
                Hold(*record, stored);
                record->SetSubDO(subDO);
                std::string const expected = subDO && row.asSubDO != "same" ? row.asSubDO : row.refusal;
                EXPECT_EQ(Refusal([&] { record->checkSegmentList(); }), expected);
                if (!subDO && !row.segments.empty()) {
                    EXPECT_EQ(Refusal([&] { Build(values); }), expected);
                }
                auto const make = [&] { DORecord(row.dotype, fptype, nullptr, 0, form.data(), form.size(), subDO); };
                EXPECT_EQ(Refusal(make), expected);
                unsigned int const size = static_cast<unsigned int>(stored.size()), option = subDO ? CR_DO_SUB_DO : 0;
                EXPECT_EQ(std::pair(DORecordHeaderValidate(stored.data(), size, option) == CR_STATUS_OK,
                                    DORecordSerializedValidate(form.data(), form.size(), row.dotype, fptype, option) ==
                                        CR_STATUS_OK),
                          std::pair(expected.empty(), expected.empty()));
                record->HostToNetwork(0);
                Bytes const before = Buffer(*record);
                EXPECT_EQ(Refusal([&] { record->checkSegmentList(); }), expected);
                EXPECT_EQ(Buffer(*record), before);
                record->HostToNetwork(0); // in host order again, while the record claims the other
                EXPECT_EQ(Refusal([&] { record->checkSegmentList(); }), kBig ? expected : kInvalidSize);
            }
        }
    }
}

TEST(DORecordSegments, DerivedSizesAreTruncatedTo32Bits) {
    SegmentValues const segment{Bytes(16), 0, 0, 64};
    auto const record = Build({.size = 0x300000005, .ssize = 0x200000003, .segments = {segment, segment}});
    EXPECT_EQ(std::pair(record->GetSegmentSize(0), record->GetSegmentSize(1)), std::pair(3u, 2u));
    // Without segments the last index is the greatest: 5 - 9 * 0xffffffff.
    auto const empty = Build<OpenRecord>(Example(4, 0));
    Hold(*empty, Spell({.size = 5, .ssize = 9}).bytes);
    EXPECT_EQ(std::pair(empty->GetSegmentSize(0), empty->GetSegmentSize(0xffffffff)), std::pair(9u, 14u));
}

TEST(DORecordSegments, SeparateChecksNameTheSegment) {
    auto const record = Build<OpenRecord>(Example(2, 0));
    // The offset that a record of this type does not have is taken for an implausible one.
    EXPECT_EQ(Refusal([&] { record->checkSegmentOffsetEndiannes(); }),
              Wrong("0 has offset 18446744073709551615 (> 8192 PetaB)."));
    EXPECT_EQ(Refusal([&] { record->checkSegmentSizeEndiannes(); }), "");
    record->SetSegmentSize(2, 0xfffffffe);
    EXPECT_EQ(Refusal([&] { record->checkSegmentSizeEndiannes(); }), Wrong("2 has size 4294967294 (> 2 GiB)."));
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
