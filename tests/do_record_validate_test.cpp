// Findings in the bytes of DO records, and records and views made from valid bytes.

#include "reader_agrees.h"
#include "support/collect_findings.h"
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
    fuzz::AgreeOnDORecord(bytes, options);
    return findings;
}

// An example with every section that newly made records have.
RecordValues Full(unsigned char dotype, unsigned char fptype) {
    RecordValues values = Example(dotype, fptype);
    values.references = {{2, 17}, {4, 5}, {9, ~0ul}};
    return values;
}

// A finding at an offset: in values that have it already, or after a patch of `width` bytes, there or elsewhere.
struct Row {
    int code;
    char const* field;
    RecordValues values;
    unsigned long offset, found, expected;
    unsigned int width = 0;
    unsigned long patchAt = offset, patch = found;
    unsigned int options = 0;
};

std::vector<Row> Rows() {
    RecordValues const v0 = Full(0, 3), v2 = Full(2, 0), v3 = Full(3, 1), bloom = Full(4, 0);
    SpelledRecord const s3 = Spell(v3), s4 = Spell(bloom);
    std::size_t const end = s3.bytes.size(), list = s3.list, trefs = s3.references;
    unsigned long const first = v3.list[0].first, ends = v3.segments[0].size, far = ~0ul >> 1, sum = 0x7fffffff,
                        subDO = v2.size - v2.segments[1].size + ~0u;
    RecordValues reserved = v3, tasks = v3, selections = v3, twice = v3, same = v3;
    RecordValues const empty{.dotype = 4};
    reserved.segments[2].dcid = 63;
    tasks.taskIds = {1, 2};
    selections.dsids = {7};
    twice.list[1].first = first;
    same.references = {{2, 5}, {2, 5}};
    return {
        {CR_FINDING_DO_TYPE, "type", v3, 0, 2, 3, 2},
        {CR_FINDING_DO_RECSIZE, "recsize", v3, 4, end + 1, end, 4},
        {CR_FINDING_DO_FLAGS, "flags", v3, 2, 0x0e, 0x06, 2},
        {CR_FINDING_DO_DOTYPE, "dotype", v0, 0x4d, 6, 5, 1},
        {CR_FINDING_DO_FPTYPE, "fptype", v3, 0x4c, 4, 3, 1},
        {CR_FINDING_DO_BLOOM_SEGMENTS, "nfp", bloom, 0x38, 1, 0, 4},
        {CR_FINDING_DO_CALCULATED, "nfp", v3, 0x38, end - 28 - 8, end, 4, 0x38, 2},
        {CR_FINDING_DO_CALCULATED, "nfp", v3, 0x38, end + 8 * 0xfffffffful, end, 4, 0x34, ~0u},
        {CR_FINDING_DO_LIST_COUNT, "unique.count", v3, list + 4, 3, 2, 4},
        {CR_FINDING_DO_LIST_CHECKSUM, "unique.checksum", v3, list, 7, WordAt<unsigned int>(s3.bytes, list), 4},
        {CR_FINDING_SEGMENT_PRODUCT, "size", v0, 0x18, 1ul << 40, 3 * v0.ssize, 8},
        {CR_FINDING_SEGMENT_SUM, "size", v2, 0x18, 7, v2.size, 8},
        {CR_FINDING_SEGMENT_SIZE, "segments[1].size", v2, 80 + 20 + 16, ~0u, sum, 4},
        // A sub-DO's segments may have up to 4 GiB - 1.
        {CR_FINDING_SEGMENT_SUM, "size", v2, 0x18, v2.size, subDO, 4, 80 + 20 + 16, ~0u, CR_DO_SUB_DO},
        {CR_FINDING_SEGMENT_OFFSET, "segments[2].offset", v3, 80 + 2 * 28 + 20, ~0ul, far, 8},
        {CR_FINDING_SEGMENT_OVERLAP, "segments[1].offset", v3, 80 + 28 + 20, 7, ends, 8},
        {CR_FINDING_SEGMENT_END, "size", v3, 0x18, 7, v3.size, 8},
        {CR_FINDING_DO_REFERENCES, "trefssize", v3, 0x44, 26, 0, 0, 0, 0, CR_DO_NO_REFERENCES},
        {CR_FINDING_DO_REFERENCE, "references", v3, trefs, 11, 0, 1},
        {CR_FINDING_DO_REFERENCE, "references", v3, trefs + 10, 4, 0, 1, trefs + 11, 8},
        {CR_FINDING_DO_BLOOM_LENGTH, "bloom.length", bloom, 80, 6, 5, 4},
        {CR_FINDING_DO_DCID, "segments[2].dcid", reserved, s3.dcids + 16, 63, 64},
        {CR_FINDING_DO_LEGACY, "ntaskid", tasks, 0x34, 16, 0},
        {CR_FINDING_DO_LEGACY, "nds", selections, 0x40, 4, 0},
        {CR_FINDING_DO_LIST_UNSORTED, "unique.entries[1].dcid", twice, list + 24, first, first + 1},
        {CR_FINDING_DO_REFERENCE_ORDER, "references", same, trefs + 10, 5, 5},
        {CR_FINDING_DO_NON_ZERO, "reserved", v3, 0x0b, 1, 0, 1},
        {CR_FINDING_DO_NON_ZERO, "bloom.end", bloom, s4.list - 1, 3, 0, 1},
        {CR_FINDING_DO_NON_ZERO, "tail", bloom, s4.tail, 4, 0, 1},
        {CR_FINDING_DO_NON_ZERO, "tail", v3, end - 1, 4, 0, 1},
        {CR_FINDING_DO_NON_ZERO, "tail", empty, 100, 4, 0, 1, 100, 4, CR_DO_NO_REFERENCES},
        {CR_FINDING_DO_BSIZE, "bsize", v3, 0x48, 1, 0, 4},
    };
}

TEST(DORecordValidate, ReportsEachFaultWithOneTraceLine) {
    for (Row const& row : Rows()) {
        for (bool const network : {false, true}) {
            SCOPED_TRACE(std::string(CRFindingName(row.code)) + " " + row.field + (network ? ", network" : ", host"));
            Bytes bytes = Spell(row.values, network).bytes;
            // Legacy counts and checksums have no order.
            bool const orderless = row.patchAt == 0x34 || row.code == CR_FINDING_DO_LIST_CHECKSUM;
            Splice(bytes, row.patchAt, Spelled(row.patch, row.width, network && !orderless));
            unsigned int const options = row.options | (network ? CR_DO_NETWORK_ORDER : 0);
            std::vector<Finding> const findings = Diagnosis(bytes, options);
            ExpectOne(findings, {row.code, 0, row.offset, row.found, row.expected, row.field, {}}, "DO record");
            LogCapture log(1);
            auto const size = static_cast<unsigned int>(bytes.size());
            bool const bad = DORecordHeaderValidate(bytes.data(), size, options) != CR_STATUS_OK;
            EXPECT_EQ(log.Take(), bad ? "trace 0: " + findings[0].message + "\n" : "");
            // Without a type the order is unknown.
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

TEST(DORecordValidate, NotesAListSummedInNetworkOrder) {
    if (kBig) {
        GTEST_SKIP() << "both orders have the same sum";
    }
    auto [bytes, entries, dcids, list, end, dsids, references, tail] = Spell(Full(5, 3), true);
    unsigned int const stored = WordAt<unsigned int>(bytes, list), sum = PlainAdler32(&bytes[list + 4], &bytes[end]);
    Splice(bytes, list, Spelled(sum, 4, false));
    ExpectOne(Diagnosis(bytes, CR_DO_NETWORK_ORDER),
              {CR_FINDING_DO_LIST_ORDER, 0, list, sum, stored, "unique.checksum", {}}, "DO record");
}

TEST(DORecordValidate, ReportsAllFaultsInOrder) {
    SpelledRecord const record = Spell(Full(1, 0));
    Bytes bytes = record.bytes;
    for (std::size_t const at :
         {kBig ? 1ul : 0ul, 2ul, 4ul, kBig ? 0x18ul : 0x1ful, 0x4cul, record.list + 5, record.references}) {
        bytes[at] = 0xff;
    }
    std::vector<int> codes;
    for (Finding const& finding : Diagnosis(bytes, CR_DO_NO_REFERENCES)) {
        codes.push_back(finding.code);
    }
    EXPECT_EQ(codes, (std::vector<int>{202, 203, 204, 206, 209, 211, 217, 218}));
    unsigned int calls = 0;
    auto const stop = [](cr_finding_t const*, void* count) { return ++*static_cast<unsigned int*>(count) == 3; };
    EXPECT_EQ(DORecordDiagnose(bytes.data(), bytes.size(), 0, stop, &calls), CR_STATUS_CORRUPT_RECORD);
    EXPECT_EQ(calls, 1u);
    RecordValues odd = Full(1, 0); // with two notes
    odd.taskIds = {1};
    odd.segments[0].dcid = 63;
    Bytes const noted = Spell(odd).bytes;
    EXPECT_EQ(DORecordDiagnose(noted.data(), noted.size(), 0, stop, &(calls = 3)), CR_STATUS_OK);
    EXPECT_EQ(calls, 4u);
    LogCapture log(1);
    EXPECT_EQ(DORecordHeaderValidate(bytes.data(), 104, 0), 32);
    EXPECT_EQ(log.Take(), "trace 0: Invalid DO record: type 255, expected 3\n");
    EXPECT_EQ(DORecordHeaderValidate(bytes.data(), 103, 0), 32);
    EXPECT_EQ(log.Take(), "trace 0: Invalid DO record: size 103, expected at least 104\n");
    for (unsigned int const size : {0u, 103u, 104u}) {
        bytes.resize(size);
        Diagnosis(bytes, 0);
    }
}

TEST(DORecordValidate, RejectsOddArguments) {
    Bytes const bytes = Spell(Full(3, 1)).bytes;
    for (auto const& [from, option] : {std::pair(bytes.data(), 8u), {bytes.data(), 1u << 31}, {nullptr, 0u}}) {
        auto const size = static_cast<unsigned int>(bytes.size());
        EXPECT_EQ(DORecordHeaderValidate(from, size, option), CR_STATUS_INVALID);
        EXPECT_EQ(DORecordDiagnose(from, size, option, nullptr, nullptr), CR_STATUS_INVALID);
        fuzz::AgreeOnDORecord({from, size}, option);
        fuzz::AgreeOnSegmentRecord({from, size}, option);
        EXPECT_EQ(Refusal([&, at = from, bit = option] { DORecordView(at, size, bit); }), "9: ");
    }
    // The order is detected.
    EXPECT_EQ(Refusal([&] { DORecordView(bytes.data(), bytes.size(), CR_DO_NETWORK_ORDER); }), "9: ");
    for (auto const& [code, name] : {std::pair(CR_FINDING_NOTE, "note"),
                                     {CR_FINDING_ERROR, "error"},
                                     {CR_FINDING_SO_LENGTH, "so-length"},
                                     {CR_FINDING_FORM_CHECKSUM, "form-checksum"},
                                     {CR_FINDING_SO_LENGTH - 1, "unknown"},
                                     {CR_FINDING_DO_BSIZE + 1, "unknown"},
                                     {CR_FINDING_FORM_CHECKSUM + 1, "unknown"}}) {
        EXPECT_STREQ(CRFindingName(code), name);
    }
}

// Valid records with one bit changed, too, if they are still valid.
TEST(DORecordValidate, ValidRecordsWorkInEveryOperation) {
    CRLogSetSink([](auto...) {}, nullptr);
    for (unsigned int shape = 0; shape < 18; ++shape) {
        unsigned int const order = shape >= 6 ? CR_DO_NETWORK_ORDER : 0, subDO = shape >= 12 ? CR_DO_SUB_DO : 0;
        RecordValues values = Full(static_cast<unsigned char>(shape % 6), shape / 6 == 1 ? 3 : 0);
        if (shape >= 12) {
            values.references.clear();
            values.taskIds = {5, 5};
            values.dsids = {6};
        }
        SCOPED_TRACE(NameOf(values) + (order ? ", network" : ", host"));
        Bytes bytes = Spell(values, order).bytes;
        EXPECT_STREQ(UseEverything(bytes.data(), bytes.size(), order | subDO), nullptr);
        for (std::size_t at = 0; at < bytes.size(); ++at) {
            auto const bit = static_cast<unsigned char>(1 << at % 8);
            bytes[at] ^= bit;
            fuzz::AgreeOnDORecord(bytes, order | subDO);
            if (DORecordDiagnose(bytes.data(), bytes.size(), order | subDO, nullptr, nullptr) == CR_STATUS_OK) {
                EXPECT_STREQ(UseEverything(bytes.data(), bytes.size(), order | subDO), nullptr) << at;
            }
            bytes[at] ^= bit;
        }
    }
    CRLogSetSink(nullptr, nullptr);
}

// The record spelled from the values of a view has the same bytes.
void ExpectView(RecordValues const& values, Bytes const& bytes, bool network) {
    DORecordView const v(bytes.data(), bytes.size());
    EXPECT_EQ(std::tuple(v.IsInNetworkOrder(), v.GetNfp(), v.GetLegacyTaskIDs(), v.GetLegacyDSIDs(), v.GetNudcid(),
                         v.GetHeaderSize(), v.GetTRefsSize()),
              std::tuple(network || kBig, values.segments.size(), 0, 0, values.list.size(), bytes.size(),
                         SpellReferences(values.references).size()));
    RecordValues seen{v.GetDOType(), v.GetFPType(), v.GetFlags(), v.GetCheckTime(), v.GetDCID(),
                      v.GetSize(),   v.GetSsize(),  v.GetCrc(),   v.GetCTime(),     v.GetMTime()};
    for (DOSegment const& segment : v.Segments()) {
        auto const [from, width] = segment.fingerprint;
        EXPECT_EQ(segment.size, values.segments[seen.segments.size()].size);
        seen.segments.push_back({Bytes(from, from + width), segment.size, segment.offset, segment.dcid});
    }
    seen.bitmap.assign(v.GetBloom(), v.GetBloom() + v.GetBSize());
    for (DOUniqueDCID const& entry : v.UniqueDCIDs()) {
        seen.list.emplace_back(entry.dcid, entry.bytes);
    }
    DOReferenceRange const references = v.References();
    DOReferenceRange::iterator next;
    next = references.begin();
    while (next != references.end()) {
        auto const reference = *next++;
        seen.references.emplace_back(reference.kind, reference.id);
    }
    EXPECT_EQ(references.empty(), values.references.empty());
    EXPECT_EQ(Spell(seen, network).bytes, bytes);
}

TEST(DORecordFromBytes, ReadsEitherOrderIntoOwnAndGivenMemory) {
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
            EXPECT_EQ(std::tuple(record->GetNTRefs(), record->HasTaskID(17), record->IsInNetworkOrder()),
                      std::tuple(4, true, false));
            for (bool const fixed : {false, true}) {
                Bytes memory = stored;
                auto const small = [&] { DORecord::Wrap(memory.data(), stored.size(), stored.size() - 1, fixed); };
                EXPECT_EQ(Refusal(small), kInvalidSize);
                memory.resize(stored.size() + 10, 0xee);
                auto const wrapped = DORecord::Wrap(memory.data(), stored.size(), memory.size(), fixed);
                EXPECT_EQ(StoredBytes(*wrapped), host);
                EXPECT_EQ(wrapped->AddTaskID(18), 0);
                EXPECT_EQ(static_cast<void*>(wrapped->GetHeader()), memory.data());
                EXPECT_EQ(Refusal([&] { wrapped->AddTaskID(19); }).empty(), !fixed);
                EXPECT_EQ(static_cast<void*>(wrapped->GetHeader()) == memory.data(), fixed);
            }
        }
    }
}

// Records with notes are accepted: repeated references are dropped, others sorted, legacy arrays become references.
TEST(DORecordFromBytes, OddRecordsBecomeCanonical) {
    for (bool const network : {false, true}) {
        RecordValues odd = Example(3, 0), even = odd, legacy = odd;
        odd.references = {{9, 1}, {2, 17}, {2, 17}, {2, 3}, {9, 1}};
        even.references = {{2, 3}, {2, 17}, {9, 1}};
        Bytes bytes = Spell(odd, network).bytes;
        EXPECT_EQ(StoredBytes(*DORecord::FromBuffer(bytes.data(), bytes.size())), Spell(even).bytes);
        EXPECT_EQ(StoredBytes(*DORecord::Wrap(bytes.data(), bytes.size(), bytes.size(), true)), Spell(even).bytes);
        legacy.taskIds = {17, 3, 17};
        legacy.dsids = {5};
        Bytes const old = bytes = Spell(legacy, network).bytes;
        auto const record = DORecord::FromBuffer(bytes.data(), bytes.size());
        even.references = {{2, 3}, {2, 17}, {4, 5}};
        even.mtime = record->GetMTime();
        EXPECT_EQ(StoredBytes(*record), Spell(even).bytes);
        EXPECT_EQ(Refusal([&] { DORecord::Wrap(bytes.data(), bytes.size(), bytes.size(), false); }),
                  "9: Cannot construct a DORecord that does not own its internal buffer but has old task id and dsid "
                  "references.");
        EXPECT_EQ(bytes, old);
        legacy.references = {{2, 1}};
        bytes = Spell(legacy, network).bytes;
        EXPECT_EQ(Refusal([&] { DORecord::FromBuffer(bytes.data(), bytes.size()); }),
                  "71: Record with both old references and new typed references not supported.");
    }
}

} // namespace
