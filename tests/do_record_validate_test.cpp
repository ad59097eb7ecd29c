// What validation says of a DO record's bytes, and what is made of bytes that pass: records and views.

#include "support/findings.h"
#include "support/log_capture.h"
#include "support/record_memory.h"
#include "use_everything.h"

#include <gtest/gtest.h>

namespace {

std::vector<Finding> Diagnosis(Bytes const& bytes, unsigned int options) {
    std::vector<Finding> findings;
    cr_status_t const status = DORecordDiagnose(bytes.data(), bytes.size(), options, Collect, &findings);
    bool const failed = !findings.empty() && findings[0].severity == CR_FINDING_ERROR;
    EXPECT_EQ(status, failed ? CR_STATUS_CORRUPT_RECORD : CR_STATUS_OK);
    EXPECT_EQ(DORecordHeaderValidate(bytes.data(), static_cast<unsigned int>(bytes.size()), options), status);
    return findings;
}

// An example with every section that newly made records have.
RecordValues Full(unsigned char dotype, unsigned char fptype) {
    RecordValues values = Example(dotype, fptype);
    values.references = {{2, 17}, {4, 5}, {9, ~0ul}};
    return values;
}

template <class Change>
RecordValues With(RecordValues values, Change change) {
    change(values);
    return values;
}

// A value, in the record's order, at an offset.
struct Patch {
    std::size_t offset;
    unsigned long value;
    unsigned int width;
};

struct Row {
    int code;
    char const* field;
    RecordValues values;
    std::vector<Patch> patches;
    unsigned long offset, found, expected;
    unsigned int options = 0;
};

std::vector<Row> Rows() {
    RecordValues const v0 = Full(0, 3), v2 = Full(2, 0), v3 = Full(3, 1), bloom = Full(4, 0);
    SpelledRecord const s2 = Spell(v2), s3 = Spell(v3), s4 = Spell(bloom);
    std::size_t const entry = 28; // bytes of one of type 3
    unsigned long const length = s3.bytes.size(), first = v3.segments[0].size;
    auto const own = [](auto change) { return With(Full(3, 1), change); };
    return {
        {CR_FINDING_DO_TYPE, "type", v3, {{0, 2, 2}}, 0, 2, 3},
        {CR_FINDING_DO_RECSIZE, "recsize", v3, {{4, length + 1, 4}}, 4, length + 1, length},
        {CR_FINDING_DO_FLAGS, "flags", v3, {{2, 0x0e, 2}}, 2, 0x0e, 0x06},
        {CR_FINDING_DO_DOTYPE, "dotype", v0, {{0x4d, 6, 1}}, 0x4d, 6, 5},
        {CR_FINDING_DO_FPTYPE, "fptype", v3, {{0x4c, 4, 1}}, 0x4c, 4, 3},
        {CR_FINDING_DO_BLOOM_SEGMENTS, "nfp", bloom, {{0x38, 1, 4}}, 0x38, 1, 0},
        {CR_FINDING_DO_CALCULATED, "nfp", v3, {{0x38, 2, 4}}, 0x38, length - entry - 8, length},
        {CR_FINDING_DO_CALCULATED, "nfp", v3, {{0x34, ~0u, 4}}, 0x38, length + 8 * 0xfffffffful, length},
        {CR_FINDING_DO_LIST_COUNT, "unique.count", v3, {{s3.list + 4, 3, 4}}, s3.list + 4, 3, 2},
        {CR_FINDING_SEGMENT_PRODUCT, "size", v0, {{0x18, 1ul << 40, 8}}, 0x18, 1ul << 40, 3 * v0.ssize},
        {CR_FINDING_SEGMENT_SUM, "size", v2, {{0x18, 7, 8}}, 0x18, 7, v2.size},
        {CR_FINDING_SEGMENT_SIZE, "segments[1].size", v2, {{80 + 20 + 16, ~0u, 4}}, 80 + 20 + 16, ~0u, 0x7fffffff},
        {CR_FINDING_SEGMENT_OFFSET,
         "segments[2].offset",
         v3,
         {{80 + 2 * entry + 20, ~0ul, 8}},
         80 + 2 * entry + 20,
         ~0ul,
         ~0ul >> 1},
        {CR_FINDING_SEGMENT_OVERLAP, "segments[1].offset", v3, {{80 + entry + 20, 7, 8}}, 80 + entry + 20, 7, first},
        {CR_FINDING_SEGMENT_END, "size", v3, {{0x18, 7, 8}}, 0x18, 7, v3.size},
        {CR_FINDING_DO_REFERENCES, "trefssize", v3, {}, 0x44, 26, 0, CR_DO_NO_REFERENCES},
        {CR_FINDING_DO_REFERENCES,
         "trefssize",
         own([](auto& v) {
             v = Example(3, 1);
             v.dsids = {1};
         }),
         {},
         0x44,
         4,
         0,
         CR_DO_NO_REFERENCES},
        {CR_FINDING_DO_REFERENCE, "references", v3, {{s3.references, 11, 1}}, s3.references, 11, 0},
        {CR_FINDING_DO_REFERENCE, "references", v3, {{s3.references + 11, 8, 1}}, s3.references + 10, 4, 0},
        {CR_FINDING_DO_BLOOM_LENGTH, "bloom.length", bloom, {{80, 6, 4}}, 80, 6, 5},
        {CR_FINDING_DO_DCID,
         "segments[2].dcid",
         own([](auto& v) { v.segments[2].dcid = 63; }),
         {},
         s3.dcids + 16,
         63,
         64},
        {CR_FINDING_DO_LEGACY,
         "ntaskid",
         own([](auto& v) {
             v.taskIds = {1, 2};
         }),
         {},
         0x34,
         16,
         0},
        {CR_FINDING_DO_LEGACY, "nds", own([](auto& v) { v.dsids = {1}; }), {}, 0x40, 4, 0},
        {CR_FINDING_DO_LIST_UNSORTED,
         "unique.entries[1].dcid",
         own([](auto& v) { v.list[1].first = 70; }),
         {},
         s3.list + 24,
         70,
         v3.list[0].first + 1},
        {CR_FINDING_DO_LIST_UNSORTED,
         "unique.entries[1].dcid",
         own([](auto& v) { v.list[1].first = v.list[0].first; }),
         {},
         s3.list + 24,
         v3.list[0].first,
         v3.list[0].first + 1},
        {CR_FINDING_DO_REFERENCE_ORDER,
         "references",
         own([](auto& v) {
             v.references = {{9, 6}, {2, 5}};
         }),
         {},
         s3.references + 10,
         5,
         6},
        {CR_FINDING_DO_REFERENCE_ORDER,
         "references",
         own([](auto& v) {
             v.references = {{2, 5}, {2, 5}};
         }),
         {},
         s3.references + 10,
         5,
         5},
        {CR_FINDING_DO_NON_ZERO, "reserved", v3, {{0x0b, 1, 1}}, 0x0b, 1, 0},
        {CR_FINDING_DO_NON_ZERO, "reserved2", v3, {{0x4f, 2, 1}}, 0x4f, 2, 0},
        {CR_FINDING_DO_NON_ZERO, "bloom.end", bloom, {{s4.list - 1, 3, 1}}, s4.list - 1, 3, 0},
        {CR_FINDING_DO_NON_ZERO, "tail", bloom, {{s4.tail, 4, 1}}, s4.tail, 4, 0},
        {CR_FINDING_DO_NON_ZERO, "tail", v3, {{length - 1, 4, 1}}, length - 1, 4, 0},
    };
}

TEST(DORecordValidate, EachFaultHasItsFindingAndOneTraceLine) {
    for (Row const& row : Rows()) {
        for (bool const network : {false, true}) {
            SCOPED_TRACE(std::string(CRFindingName(row.code)) + " " + row.field + (network ? ", network" : ", host"));
            Bytes bytes = Spell(row.values, network).bytes;
            for (Patch const& patch : row.patches) {
                // The legacy counts have no order.
                Splice(bytes, patch.offset, Spelled(patch.value, patch.width, network && patch.offset != 0x34));
            }
            unsigned int const options = row.options | (network ? CR_DO_NETWORK_ORDER : 0);
            std::vector<Finding> const findings = Diagnosis(bytes, options);
            ExpectOne(findings, {row.code, 0, row.offset, row.found, row.expected, row.field, {}}, "DO record");
            LogCapture log(1);
            auto const size = static_cast<unsigned int>(bytes.size());
            bool const bad = DORecordHeaderValidate(bytes.data(), size, options) != CR_STATUS_OK;
            EXPECT_EQ(log.Take(), bad ? "trace 0: " + findings[0].message + "\n" : "");
            // Without a type there is no order to be found out.
            if (bad && row.options == 0 && (row.code != CR_FINDING_DO_TYPE || !network)) {
                Bytes const before = bytes;
                std::string const refusal = "32: " + findings[0].message;
                EXPECT_EQ(Refusal([&] { DORecord::FromBuffer(bytes.data(), size); }), refusal);
                EXPECT_EQ(Refusal([&] { DORecord::Wrap(bytes.data(), size, size, false); }), refusal);
                EXPECT_EQ(Refusal([&] { DORecordView(bytes.data(), size); }), refusal);
                EXPECT_EQ(bytes, before);
            }
        }
    }
}

// Checksums have no order; one that was made over the list as it stands in network order is odd, and good.
TEST(DORecordValidate, ListChecksums) {
    for (bool const network : {false, true}) {
        SpelledRecord const record = Spell(Full(5, 3), network);
        auto const with = [&](unsigned int sum, int code) {
            Bytes bytes = record.bytes;
            auto const stored = WordAt<unsigned int>(bytes, record.list);
            Splice(bytes, record.list, Spelled(sum, 4, false));
            ExpectOne(Diagnosis(bytes, network), {code, 0, record.list, sum, stored, "unique.checksum", {}},
                      "DO record");
        };
        with(7, CR_FINDING_DO_LIST_CHECKSUM);
        unsigned char const* const list = record.bytes.data() + record.list;
        if (network) {
            with(PlainAdler32(list + 4, list + 40), CR_FINDING_DO_LIST_ORDER);
        }
    }
}

TEST(DORecordValidate, GoesOnToTheEndInOrder) {
    Bytes bytes = Spell(Full(1, 0)).bytes;
    std::size_t const list = Spell(Full(1, 0)).list, references = Spell(Full(1, 0)).references;
    bytes[0] = bytes[2] = bytes[4] = bytes[0x4c] = bytes[0x1f] = bytes[list + 5] = bytes[references] = 0xff;
    std::vector<int> codes;
    for (Finding const& finding : Diagnosis(bytes, CR_DO_NO_REFERENCES)) {
        codes.push_back(finding.code);
    }
    EXPECT_EQ(codes, (std::vector<int>{201 + 1, 203, 204, 206, 209, 211, 217, 218}));
    unsigned int calls = 0;
    auto const stop = [](cr_finding_t const*, void* count) { return ++*static_cast<unsigned int*>(count) == 3; };
    EXPECT_EQ(DORecordDiagnose(bytes.data(), bytes.size(), 0, stop, &calls), CR_STATUS_CORRUPT_RECORD);
    EXPECT_EQ(calls, 1u);
    LogCapture log(1);
    EXPECT_EQ(DORecordHeaderValidate(bytes.data(), static_cast<unsigned int>(bytes.size()), 0), 32);
    EXPECT_EQ(log.Take(), "trace 0: Invalid DO record: type 255, expected 3\n");
    EXPECT_EQ(DORecordHeaderValidate(bytes.data(), 103, 0), 32);
    EXPECT_EQ(log.Take(), "trace 0: Invalid DO record: size 103, expected at least 104\n");
    EXPECT_EQ(DORecord::ValidateHeader(nullptr, 104, 0), CR_STATUS_INVALID);
    EXPECT_EQ(DORecord::ValidateHeader(bytes.data(), 104, 8), CR_STATUS_INVALID);
    EXPECT_EQ(DORecordDiagnose(bytes.data(), 104, 8, nullptr, nullptr), CR_STATUS_INVALID);
    EXPECT_EQ(DORecordDiagnose(bytes.data(), 104, 0, nullptr, nullptr), CR_STATUS_CORRUPT_RECORD);
    EXPECT_EQ(log.Take(), "");
}

// A sub-DO's segments may have up to 4 GiB - 1.
TEST(DORecordValidate, SubDOs) {
    RecordValues values = Example(2, 0);
    values.size += 0xf0000000;
    values.segments[1].size += 0xf0000000;
    Bytes bytes = Spell(values).bytes;
    EXPECT_EQ(Diagnosis(bytes, 0)[0].code, CR_FINDING_SEGMENT_SIZE);
    EXPECT_TRUE(Diagnosis(bytes, CR_DO_SUB_DO).empty());
    EXPECT_TRUE(DORecord::FromBuffer(bytes.data(), bytes.size(), CR_DO_SUB_DO)->IsSubDO());
    EXPECT_EQ(DORecordView(bytes.data(), bytes.size(), CR_DO_SUB_DO).Segments()[1].size, values.segments[1].size);
    EXPECT_EQ(Refusal([&] { DORecord::FromBuffer(bytes.data(), bytes.size()); }).substr(0, 4), "32: ");
}

// Every prefix is refused, and so is a change of one bit, or what is left is a record with which everything works.
TEST(DORecordValidate, WhatPassesWorksInEveryOperation) {
    CRLogSetSink([](auto...) {}, nullptr);
    for (unsigned char dotype = 0; dotype < 6; ++dotype) {
        for (unsigned int shape = 0; shape < 3; ++shape) {
            bool const network = shape != 0;
            RecordValues values = Full(dotype, shape == 1 ? 3 : 0);
            if (shape == 2) {
                values.references.clear();
                values.taskIds = {5, 5};
                values.dsids = {6};
            }
            Bytes const good = Spell(values, network).bytes;
            unsigned int const options = network;
            SCOPED_TRACE(NameOf(values) + (network ? ", network" : ", host"));
            for (std::size_t size = 0; size < good.size(); ++size) {
                Bytes const prefix(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size));
                EXPECT_EQ(DORecordHeaderValidate(prefix.data(), static_cast<unsigned int>(size), options),
                          size == 0 ? CR_STATUS_INVALID : CR_STATUS_CORRUPT_RECORD);
            }
            EXPECT_STREQ(UseEverything(good.data(), good.size(), options), nullptr);
            for (std::size_t bit = 0; bit < 8 * good.size(); ++bit) {
                Bytes bytes = good;
                bytes[bit / 8] = static_cast<unsigned char>(bytes[bit / 8] ^ 1 << bit % 8);
                bool const passes =
                    DORecordDiagnose(bytes.data(), bytes.size(), options, nullptr, nullptr) == CR_STATUS_OK;
                EXPECT_EQ(passes, Refusal([&] { DORecordView(bytes.data(), bytes.size()); }).empty());
                if (passes && bit % 8 == bit / 8 % 8) { // of each byte one bit: the others tell no more
                    EXPECT_STREQ(UseEverything(bytes.data(), bytes.size(), options), nullptr) << bit;
                }
            }
        }
    }
    CRLogSetSink(nullptr, nullptr);
}

void ExpectView(RecordValues const& values, Bytes const& bytes, bool network) {
    DORecordView const view(bytes.data(), bytes.size());
    EXPECT_TRUE(
        view.IsInNetworkOrder() == network && view.GetFlags() == values.flags && view.GetHeaderSize() == bytes.size() &&
        view.GetCheckTime() == values.checktime && view.GetDCID() == values.CID && view.GetSize() == values.size &&
        view.GetSsize() == values.ssize && view.GetCrc() == values.CRC && view.GetCTime() == values.ctime &&
        view.GetMTime() == values.mtime && view.GetNfp() == values.segments.size() &&
        view.GetNudcid() == values.list.size() && view.GetTRefsSize() == SpellReferences(values.references).size() &&
        view.GetBSize() == values.bitmap.size() && view.GetFPType() == values.fptype &&
        view.GetDOType() == values.dotype && view.GetLegacyTaskIDs() == values.taskIds.size() &&
        view.GetLegacyDSIDs() == values.dsids.size() && static_cast<void const*>(view.GetHeader()) == bytes.data());
    std::size_t i = 0;
    for (DOSegment const& segment : view.Segments()) {
        EXPECT_TRUE(segment.size == values.segments[i].size && segment.dcid == values.segments[i].dcid);
        ++i;
    }
    std::vector<std::pair<unsigned long, unsigned long>> list;
    for (DOUniqueDCID const& entry : view.UniqueDCIDs()) {
        list.emplace_back(entry.dcid, entry.bytes);
    }
    std::vector<std::pair<int, unsigned long>> references;
    for (DOReference const& reference : view.References()) {
        references.emplace_back(reference.kind, reference.id);
    }
    EXPECT_TRUE(i == values.segments.size() && list == values.list && references == values.references);
    EXPECT_TRUE(std::equal(values.bitmap.begin(), values.bitmap.end(), view.GetBloom()));
}

TEST(DORecordFromBytes, EitherOrderInOwnAndInGivenMemory) {
    for (RecordValues values : Examples()) {
        values.references = {{0, 1}, {2, 17}, {4, 5}, {10, 7}};
        values.flags = 6;
        values.checktime = 9;
        Bytes const host = Spell(values).bytes;
        for (bool const network : {false, true}) {
            SCOPED_TRACE(NameOf(values));
            Bytes const stored = Spell(values, network).bytes;
            ExpectView(values, stored, network);
            auto const record = DORecord::FromBuffer(stored.data(), stored.size());
            EXPECT_EQ(StoredBytes(*record), host);
            EXPECT_TRUE(record->GetNTRefs() == 4 && record->HasTaskID(17) && !record->IsInNetworkOrder());
            for (bool const fixed : {false, true}) {
                Bytes memory = stored;
                memory.resize(stored.size() + 10, 0xee);
                auto const wrapped = DORecord::Wrap(memory.data(), stored.size(), memory.size(), fixed);
                EXPECT_EQ(static_cast<void*>(wrapped->GetHeader()), memory.data());
                EXPECT_EQ(StoredBytes(*wrapped), host);
                EXPECT_EQ(wrapped->AddTaskID(18), 0);
                EXPECT_EQ(static_cast<void*>(wrapped->GetHeader()), memory.data());
                EXPECT_EQ(Refusal([&] { wrapped->AddTaskID(19); }).empty(), !fixed);
                EXPECT_EQ(static_cast<void*>(wrapped->GetHeader()) == memory.data(), fixed);
                EXPECT_EQ(wrapped->GetNtaskid(), fixed ? 2u : 3u);
            }
        }
    }
}

// Notes don't refuse: repeated references are dropped, unsorted ones sorted, legacy arrays turned into references.
TEST(DORecordFromBytes, OddRecordsBecomeCanonical) {
    for (bool const network : {false, true}) {
        RecordValues odd = Example(3, 0), even = odd;
        odd.references = {{9, 1}, {2, 17}, {2, 17}, {2, 3}, {9, 1}};
        even.references = {{2, 3}, {2, 17}, {9, 1}};
        Bytes bytes = Spell(odd, network).bytes;
        EXPECT_EQ(StoredBytes(*DORecord::FromBuffer(bytes.data(), bytes.size())), Spell(even).bytes);
        EXPECT_EQ(StoredBytes(*DORecord::Wrap(bytes.data(), bytes.size(), bytes.size(), true)), Spell(even).bytes);

        RecordValues legacy = Example(4, 0);
        legacy.taskIds = {17, 3, 17};
        legacy.dsids = {5};
        bytes = Spell(legacy, network).bytes;
        auto const record = DORecord::FromBuffer(bytes.data(), bytes.size());
        EXPECT_TRUE(record->GetNtaskid() == 2 && record->HasTaskID(3) && record->HasDSID(5));
        even = Example(4, 0);
        even.references = {{2, 3}, {2, 17}, {4, 5}};
        even.mtime = record->GetMTime();
        EXPECT_EQ(StoredBytes(*record), Spell(even).bytes);

        Bytes const before = bytes;
        EXPECT_EQ(Refusal([&] { DORecord::Wrap(bytes.data(), bytes.size(), bytes.size(), false); }),
                  "9: Cannot construct a DORecord that does not own its internal buffer but has old task id and dsid "
                  "references.");
        EXPECT_EQ(bytes, before);
        legacy.references = {{2, 1}};
        bytes = Spell(legacy, network).bytes;
        EXPECT_EQ(Refusal([&] { DORecord::FromBuffer(bytes.data(), bytes.size()); }),
                  "71: Record with both old references and new typed references not supported.");
    }
}

TEST(DORecordFromBytes, Arguments) {
    Bytes bytes = Spell(Full(3, 0), true).bytes, before = bytes;
    EXPECT_EQ(Refusal([&] { DORecord::Wrap(bytes.data(), bytes.size(), bytes.size() - 1, true); }), kInvalidSize);
    for (unsigned int const options : {1u, 2u, 8u}) {
        EXPECT_EQ(Refusal([&] { DORecord::Wrap(bytes.data(), bytes.size(), bytes.size(), true, options); }), "9: ");
        EXPECT_EQ(Refusal([&] { DORecord::FromBuffer(bytes.data(), bytes.size(), options); }), "9: ");
        EXPECT_EQ(Refusal([&] { DORecordView(bytes.data(), bytes.size(), options); }), "9: ");
    }
    EXPECT_EQ(Refusal([] { DORecord::FromBuffer(nullptr, 0); }), "9: ");
    EXPECT_EQ(Refusal([] { DORecord::Wrap(nullptr, 200, 200, false); }), "9: ");
    EXPECT_EQ(Refusal([] { DORecordView(nullptr, 200); }), "9: ");
    EXPECT_EQ(Refusal([] { DORecord::FromBuffer("", 0); }), "32: Invalid DO record: size 0, expected at least 104");
    EXPECT_EQ(bytes, before);
}

} // namespace
