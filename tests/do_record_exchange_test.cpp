// DORecord: the exchange forms, written and read.

#include "support/clock.h"
#include "support/collect_findings.h"
#include "support/log_capture.h"
#include "support/record_memory.h"

#include <gtest/gtest.h>

#include <sys/mman.h>

namespace {

using Serializer = cr_status_t (DORecord::*)(void**, unsigned long*, bool) const;
using Result = std::pair<int, Bytes>;

Result Serialized(DORecord const& record, bool withChecksum, Serializer serializer = &DORecord::Serialize) {
    void* out = nullptr;
    unsigned long length = 0;
    int const status = (record.*serializer)(&out, &length, withChecksum);
    auto const* const from = static_cast<unsigned char const*>(out);
    Bytes const bytes(from, from + length);
    DORecord::SerializedDORecordFree(&out);
    EXPECT_EQ(out, nullptr);
    return {status, bytes};
}

TEST(DORecordExchange, FormsAreExact) {
    for (RecordValues values : Examples()) {
        for (bool const full : {true, false}) {
            values.list.resize(full ? values.list.size() : 0);
            auto const record = Build(values);
            for (bool const withChecksum : {false, true}) {
                SCOPED_TRACE(NameOf(values));
                Result const form(CR_STATUS_OK, SpellForm(values, withChecksum)), none(CR_STATUS_INVALID, Bytes());
                EXPECT_EQ(Serialized(*record, withChecksum), form);
                EXPECT_EQ(Serialized(*record, withChecksum, &DORecord::SerializeBloomFilterDO),
                          values.dotype == 4 ? form : none);
            }
        }
    }
}

TEST(DORecordExchange, RejectionsChangeNothing) {
    for (unsigned char const dotype : {CR_DO_TYPE_8_BYTE_OFFSET, CR_DO_TYPE_BLOOM_FILTER}) {
        void* out = &out;
        unsigned long length = 7;
        auto const record = Build<OpenRecord>(Example(dotype, 0)), large = Build<OpenRecord>(Example(dotype, 0));
        EXPECT_EQ(record->Serialize(nullptr, &length, false), CR_STATUS_NULL_ARGUMENT);
        EXPECT_EQ(record->Serialize(&out, nullptr, false), CR_STATUS_NULL_ARGUMENT);
        (dotype == CR_DO_TYPE_BLOOM_FILTER ? large->header->bsize : large->header->nfp) += 100;
        EXPECT_EQ(large->Serialize(&out, &length, false), CR_STATUS_INVALID);
        record->HostToNetwork(0);
        EXPECT_EQ(record->Serialize(&out, &length, false), CR_STATUS_INVALID);
        EXPECT_EQ(std::pair(out, length), std::pair(static_cast<void*>(&out), 7ul));
    }
}

// The record built from a form.
Bytes Received(RecordValues values, Bytes const& form, bool subDO) {
    RecordValues const sent = values;
    values.flags = 0;
    values.CID = subDO && !values.segments.empty() ? values.segments[0].dcid : 0;
    values.ctime = values.mtime = test_clock::now;
    values.CRC = BigEndianAt(form, 16);
    values.list.resize(values.dotype == 4 ? values.list.size() : 0);
    SpelledRecord record = Spell(values);
    if (values.dotype == 4) { // as it was sent
        Splice(record.bytes, record.entries, Spelled(values.bitmap.size(), 4, true));
        Splice(record.bytes, record.list, values.list.empty() ? Bytes() : SpellFormList(sent));
    }
    return record.bytes;
}

TEST(DORecordExchange, FormsBecomeRecordsInAnyBuffer) {
    std::vector<RecordValues> examples = Examples();
    for (unsigned char dotype = 0; dotype < 6; ++dotype) {
        examples.push_back({.dotype = dotype, .ssize = 9}); // empty
    }
    for (RecordValues const& values : examples) {
        Bytes const form = SpellForm(values, true);
        for (bool const subDO : {false, true}) {
            SCOPED_TRACE(NameOf(values));
            Bytes const expected = Received(values, form, subDO);
            for (std::size_t const capacity : {0ul, expected.size() - 1, expected.size()}) {
                bool const fits = capacity == expected.size();
                Bytes memory(capacity, 0xee), after = fits ? expected : memory;
                OpenRecord record(values.dotype, values.fptype, capacity ? memory.data() : nullptr,
                                  capacity ? capacity : 99, form.data(), form.size(), subDO);
                EXPECT_EQ(std::pair(Buffer(record), memory), std::pair(expected, after));
                EXPECT_EQ(std::tuple(record.ownsBuffer, record.subDO, record.spare), std::tuple(!fits, subDO, 0));
                EXPECT_EQ(record.AddTaskID(1), 0);
                EXPECT_EQ(std::pair(record.ownsBuffer, memory), std::pair(true, after));
            }
        }
    }
}

// Form and buffer at these offsets of one block. A common byte is rejected before any byte is written.
TEST(DORecordExchange, RejectsAFormThatOverlapsTheBuffer) {
    for (RecordValues const& values : {Example(3, 1), Example(4, 0)}) {
        Bytes const form = SpellForm(values, true), expected = Received(values, form, false);
        std::size_t const capacity = expected.size(), more = capacity + form.size();
        std::tuple<std::size_t, std::size_t, std::size_t, bool> const rows[] = {
            {0, 0, capacity, true},
            {capacity, 0, capacity, false},
            {capacity - 1, 0, capacity, true},
            {0, form.size(), capacity, false},
            {0, form.size() - 1, capacity, true},
            {9, 0, more, true},
            {0, 9, 9, true}, // also if the record does not fit
            {0, 9, 0, false}};
        for (auto const& [formAt, bufferAt, size, overlap] : rows) {
            SCOPED_TRACE(NameOf(values) + ", row " + std::to_string(formAt) + " " + std::to_string(bufferAt));
            Bytes memory(2 * more, 0xee);
            Splice(memory, formAt, form);
            Bytes const before = memory;
            auto* const buffer = &memory[bufferAt];
            auto const make = [&, at = formAt, bytes = size] {
                OpenRecord const record(values.dotype, values.fptype, buffer, bytes, &memory[at], form.size(), false);
                Bytes made = Buffer(record);
                made.resize(capacity);
                EXPECT_EQ(made, expected);
            };
            EXPECT_EQ(Refusal(make), overlap ? "9: " : "");
            if (overlap) {
                EXPECT_EQ(memory, before);
            }
        }
    }
}

std::string Construction(unsigned int dotype, unsigned char fptype, Bytes const& form) {
    return Refusal([&] { DORecord(dotype, fptype, nullptr, 0, form.data(), form.size(), false); });
}

// A form with a changed byte, its finding, and the constructor's refusal.
struct BadForm {
    RecordValues const& values;
    char const* field;
    std::size_t at;
    unsigned char byte;
    int code;
    unsigned long offset, found, expected;
    std::string refusal = "32: ";
};

TEST(DORecordExchange, ReportsEachFault) {
    RecordValues const v0 = Example(0, 3), v3 = Example(3, 0), v5 = Example(5, 1), bloom = Example(4, 0);
    Bytes const form = SpellForm(v3, true), bloomForm = SpellForm(bloom, true);
    unsigned long const sum = BigEndianAt(form, 16), bloomSum = BigEndianAt(bloomForm, 16),
                        list = BigEndianAt(bloomForm, 37);
    Bytes all = bloomForm;
    all[45] = 0;
    unsigned long const emptied = PlainAdler32(&all[41], &all[53]); // the list's second half is outside of its sum
    // Of type 3: entries of 45 bytes, that is text, NUL, size and offset. The bloom form's list is at 37.
    unsigned long const separator = 28 + 3 * 45, far = 1ul << 63, much = 1ul << 56;
    for (BadForm const& bad : {
             BadForm{v3, "nfp", 23, 4, CR_FINDING_FORM_CALCULATED, 20, 29 + 4 * 53, 29 + 3 * 53},
             {v3, "zero", 27, 1, CR_FINDING_FORM_ZERO, 24, 1, 0},
             {v3, "segments[0].fingerprint", 28, 'D', CR_FINDING_FORM_FINGERPRINT, 28, 'D', 0},
             {v3, "segments[1].fingerprint", 28 + 45 + 31, 'g', CR_FINDING_FORM_FINGERPRINT, 28 + 45, 'e', 0},
             {v3, "segments[0].fingerprint", 28 + 32, 1, CR_FINDING_FORM_FINGERPRINT, 28, 'd', 0},
             {v3, "separator", separator, 1, CR_FINDING_FORM_ZERO, separator, 1, 0},
             {v3, "segments[0].size", 61, 0x80, CR_FINDING_SEGMENT_SIZE, 61, 0x80020304, 0x7fffffff, "89: "},
             {v3, "segments[0].offset", 65, 0x80, CR_FINDING_SEGMENT_OFFSET, 65, far, far - 1, "89: "},
             {v3, "segments[1].offset", 117, 3, CR_FINDING_SEGMENT_OVERLAP, 110, 0x01020303, 0x01020304, "89: "},
             {v3, "size", 7, 0x11, CR_FINDING_SEGMENT_END, 0, v3.size - 7, v3.size, "89: "},
             {v0, "size", 0, 1, CR_FINDING_SEGMENT_PRODUCT, 0, much + v0.size, 3 * v0.ssize, "89: "},
             {v5, "size", 0, 1, CR_FINDING_SEGMENT_SUM, 0, much + v5.size, v5.size, "89: "},
             {bloom, "nfp", 23, 1, CR_FINDING_FORM_BLOOM_SEGMENTS, 20, 1, 0},
             {bloom, "zero", 24, 1, CR_FINDING_FORM_ZERO, 24, 1ul << 24, 0},
             {bloom, "bsize", 31, 6, CR_FINDING_FORM_CALCULATED, 28, 62, 77},
             {bloom, "bsize", 44, 2, CR_FINDING_FORM_CALCULATED, 28, 93, 77},
             {bloom, "unique.checksum", 45, 0, CR_FINDING_FORM_LIST_CHECKSUM, 37, list, emptied},
             {bloom, "end", 76, 1, CR_FINDING_FORM_ZERO, 61, 1, 0},
             {bloom, "checksum", 19, static_cast<unsigned char>(bloomSum ^ 1), CR_FINDING_FORM_CHECKSUM, 16,
              bloomSum ^ 1, bloomSum},
             // The constructor does not check this checksum.
             {v3, "checksum", 19, static_cast<unsigned char>(sum ^ 1), CR_FINDING_FORM_CHECKSUM, 16, sum ^ 1, sum, ""},
         }) {
        RecordValues const& values = bad.values;
        SCOPED_TRACE(NameOf(values) + ": " + bad.field);
        Bytes changed = SpellForm(values, true);
        changed[bad.at] = bad.byte;
        if (bad.at != 19) {
            SumForm(changed);
        }
        auto const with = [&](auto validate, auto... listener) {
            return validate(changed.data(), changed.size(), values.dotype, values.fptype, 1, listener...);
        };
        std::vector<Finding> findings;
        EXPECT_EQ(with(DORecordSerializedDiagnose, Collect, &findings), CR_STATUS_CORRUPT_RECORD);
        ExpectOne(findings, {bad.code, 0, bad.offset, bad.found, bad.expected, bad.field, {}}, "serialized DO");
        LogCapture log(1);
        EXPECT_EQ(with(DORecordSerializedValidate), CR_STATUS_CORRUPT_RECORD);
        EXPECT_EQ(log.Take(), "trace 0: " + findings[0].message + "\n");
        EXPECT_EQ(Construction(values.dotype, values.fptype, changed).substr(0, 4), bad.refusal);
        Bytes memory(1024); // also into a given buffer
        auto const into = [&] {
            OpenRecord(values.dotype, values.fptype, memory.data(), memory.size(), changed.data(), changed.size(),
                       false);
        };
        EXPECT_EQ(Refusal(into).substr(0, 4), bad.refusal);
    }
    // All faults are reported, in order.
    all = form;
    all[27] = all[28] = all[separator] = all[7] = 1;
    std::vector<Finding> findings;
    EXPECT_EQ(DORecordSerializedDiagnose(all.data(), all.size(), 3, 0, 1, Collect, &findings), 32);
    std::string fields;
    for (Finding const& finding : findings) {
        fields += finding.field + " ";
    }
    EXPECT_EQ(fields, "zero segments[0].fingerprint separator size checksum ");
    all = bloomForm;
    all[53] ^= 1;
    SumForm(all);
    EXPECT_EQ(DORecordSerializedValidate(all.data(), all.size(), 4, 0, 0), CR_STATUS_OK);
}

// A bitmap of 4 GiB - 1 after the form's head and the 28 bytes of its list. Only these are read. The parser reads only
// the head of a form with segments.
TEST(DORecordExchange, RejectsAFormWhoseRecordIsTooLarge) {
    constexpr unsigned long kBitmap = 0xffffffff, kSize = 28 + 28 + kBitmap;
    constexpr unsigned long kSegments = 178956967, kSegmentForm = 29 + (33 + 8) * kSegments;
    static_assert(104 + (16 + 8) * kSegments > kBitmap && kSegmentForm > kSize);
    void* const form =
        mmap(nullptr, kSegmentForm, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(form, MAP_FAILED);
    std::memset(static_cast<char*>(form) + 28, 0xff, 4);
    std::vector<Finding> findings;
    auto const first = [](cr_finding_t const* finding, void* context) { return !Collect(finding, context); };
    EXPECT_EQ(DORecordSerializedDiagnose(form, kSize, CR_DO_TYPE_BLOOM_FILTER, 0, 0, first, &findings),
              CR_STATUS_CORRUPT_RECORD);
    ExpectOne(findings, {CR_FINDING_FORM_TOO_LARGE, 0, 20, 96 + 8 + kBitmap, kBitmap, "nfp", ""}, "serialized DO");
    Bytes const count = Spelled(kSegments, 4, true);
    std::copy(count.begin(), count.end(), static_cast<unsigned char*>(form) + 20);
    EXPECT_EQ(Refusal([&] { DORecord(CR_DO_TYPE_ORIGINAL, 0, nullptr, 0, form, kSegmentForm, false); }), "9: ");
    munmap(form, kSegmentForm);
}

// Segments are read in blocks of 256; the checks continue from each block to the next.
TEST(DORecordExchange, ChecksSegmentsAcrossBlocks) {
    RecordValues values{.dotype = 3};
    for (unsigned int i = 0; i < 600; ++i) {
        values.segments.push_back({Bytes(16, 7), 10, 10ul * i, 64});
    }
    values.size = 6000;
    auto const field = [&](std::size_t i, unsigned long offset) { // of the first finding
        RecordValues changed = values;
        changed.segments[i].offset = offset;
        std::vector<Finding> findings;
        Bytes const form = SpellForm(changed, true), stored = Spell(changed, true).bytes;
        DORecordSerializedDiagnose(form.data(), form.size(), 3, 0, 1, Collect, &findings);
        EXPECT_EQ(Construction(3, 0, form).substr(0, 4), findings.empty() ? "" : "89: ");
        auto const copy = [&] { DORecord::FromBuffer(stored.data(), stored.size()); };
        EXPECT_EQ(Refusal(copy).empty(), findings.empty());
        return findings.empty() ? "" : findings[0].field;
    };
    EXPECT_EQ(field(256, 2560), "");
    for (unsigned long const i : {1ul, 255ul, 256ul, 257ul, 511ul, 512ul, 599ul}) {
        EXPECT_EQ(field(i, 10 * i - 1), "segments[" + std::to_string(i) + "].offset");
        EXPECT_EQ(field(i, 1ul << 63), "segments[" + std::to_string(i) + "].offset");
    }
    EXPECT_EQ(field(599, 5991), "size");
    values.dotype = 2;
    values.segments[300].size = 11;
    Bytes const form = SpellForm(values, true);
    EXPECT_EQ(DORecordSerializedValidate(form.data(), form.size(), 2, 0, 1), CR_STATUS_CORRUPT_RECORD);
}

TEST(DORecordExchange, RejectsShortForms) {
    std::tuple<unsigned char, unsigned long, Finding> const rows[] = {
        {0, 28, {CR_FINDING_FORM_LENGTH, 0, 28, 28, 29, "length", {}}},
        {4, 29, {CR_FINDING_FORM_CALCULATED, 0, 28, 56, 29, "bsize", {}}},
        {4, 55, {CR_FINDING_FORM_CALCULATED, 0, 28, 56, 55, "bsize", {}}},
    };
    for (auto const& [dotype, size, expected] : rows) {
        Bytes const form(size);
        std::vector<Finding> findings;
        EXPECT_EQ(DORecordSerializedDiagnose(form.data(), size, dotype, 0, 0, Collect, &findings), 32);
        ExpectOne(findings, expected, "serialized DO");
        EXPECT_EQ(Construction(dotype, 0, form), "32: ");
    }
}

TEST(DORecordExchange, RejectsOddArguments) {
    Bytes const form = SpellForm(Example(3, 0), false);
    EXPECT_EQ(Construction(6, 0, {}), "65: ");
    EXPECT_EQ(Construction(259, 9, form), "113: ");
    EXPECT_EQ(Construction(3, 9, form), "9: invalid fptype for DO"); // parsed as 16 bytes wide
    EXPECT_EQ(DORecordSerializedValidate(form.data(), form.size(), 6, 0, 0), CR_STATUS_INVALID);
    EXPECT_EQ(DORecordSerializedValidate(form.data(), form.size(), 3, 0, 2), CR_STATUS_INVALID);
    EXPECT_EQ(DORecordSerializedValidate(form.data(), form.size(), 3, 4, 0), CR_STATUS_INVALID);
    EXPECT_EQ(DORecordSerializedValidate(nullptr, form.size(), 3, 0, 0), CR_STATUS_INVALID);
    DORecordHeader* header = nullptr;
    unsigned long size = 0;
    EXPECT_EQ(DORecordHeaderDeserialize(nullptr, &size, form.data(), form.size(), 3, 0), CR_STATUS_NULL_ARGUMENT);
    EXPECT_EQ(DORecordHeaderDeserialize(&header, nullptr, form.data(), form.size(), 3, 0), CR_STATUS_NULL_ARGUMENT);
}

} // namespace
