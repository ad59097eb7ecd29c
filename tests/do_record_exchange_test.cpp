// DORecord: the exchange forms, written and read.

#include "support/clock.h"
#include "support/findings.h"
#include "support/log_capture.h"
#include "support/record_memory.h"

#include <gtest/gtest.h>

namespace {

struct Form {
    cr_status_t status;
    Bytes bytes;
};

using Serializer = cr_status_t (DORecord::*)(void**, unsigned long*, bool) const;

Form Serialized(DORecord const& record, bool withChecksum, Serializer serializer = &DORecord::Serialize) {
    void* out = nullptr;
    unsigned long length = 0;
    Form form{(record.*serializer)(&out, &length, withChecksum), {}};
    auto const* const from = static_cast<unsigned char const*>(out);
    form.bytes.assign(from, from + length);
    DORecord::SerializedDORecordFree(&out);
    EXPECT_EQ(out, nullptr);
    return form;
}

// The record that a form makes.
Bytes Received(RecordValues values, Bytes const& form, unsigned long ownDcid = 0) {
    RecordValues const sent = values;
    values.flags = 0;
    values.CID = ownDcid;
    values.ctime = values.mtime = test_clock::now;
    values.CRC = static_cast<unsigned int>(SwapBytes(WordAt<unsigned int>(form, 16), 4));
    if (values.dotype != 4) {
        values.list.clear();
        return Spell(values).bytes;
    }
    SpelledRecord record = Spell(values);
    Splice(record.bytes, record.entries, Spelled(values.bitmap.size(), 4, true));
    Splice(record.bytes, record.list, values.list.empty() ? Bytes() : SpellFormList(sent));
    return record.bytes;
}

TEST(DORecordExchange, FormsAreExact) {
    for (RecordValues values : Examples()) {
        for (bool const full : {true, false}) {
            values.list.resize(full ? values.list.size() : 0);
            auto const record = Build(values);
            Bytes const before = StoredBytes(*record);
            for (bool const withChecksum : {false, true}) {
                SCOPED_TRACE(NameOf(values));
                Form const form = Serialized(*record, withChecksum);
                EXPECT_EQ(form.status, CR_STATUS_OK);
                EXPECT_EQ(form.bytes, SpellForm(values, withChecksum));
                Form const bloom = Serialized(*record, withChecksum, &DORecord::SerializeBloomFilterDO);
                EXPECT_EQ(bloom.status, values.dotype == 4 ? CR_STATUS_OK : CR_STATUS_INVALID);
                EXPECT_EQ(bloom.bytes, values.dotype == 4 ? form.bytes : Bytes());
            }
            EXPECT_EQ(StoredBytes(*record), before);
        }
    }
    RecordValues two = Example(3, 0);
    two.segments.resize(2);
    EXPECT_EQ(Serialized(*Build(two), false).bytes.size(), 135u);
}

TEST(DORecordExchange, RefusalsTouchNothing) {
    DORecord::SerializedDORecordFree(nullptr);
    for (unsigned char const dotype : {CR_DO_TYPE_8_BYTE_OFFSET, CR_DO_TYPE_BLOOM_FILTER}) {
        auto const record = Build<OpenRecord>(Example(dotype, 0));
        void* out = &out;
        unsigned long length = 7;
        EXPECT_EQ(record->Serialize(nullptr, &length, false), CR_STATUS_NULL_ARGUMENT);
        EXPECT_EQ(record->Serialize(&out, nullptr, false), CR_STATUS_NULL_ARGUMENT);
        record->header->nfp += 100;
        record->header->bsize += 100;
        EXPECT_EQ(record->Serialize(&out, &length, false), CR_STATUS_INVALID);
        record->header->nfp -= 100;
        record->header->bsize -= 100;
        record->HostToNetwork(0);
        LogCapture log(1);
        EXPECT_EQ(record->Serialize(&out, &length, false), CR_STATUS_INVALID);
        EXPECT_EQ(record->Serialize(nullptr, nullptr, false), CR_STATUS_INVALID);
        EXPECT_EQ(record->SerializeBloomFilterDO(&out, &length, false), CR_STATUS_INVALID);
        EXPECT_TRUE(out == &out && length == 7 && log.Take().empty());
    }
}

TEST(DORecordExchange, RecordsComeBackInAnyBuffer) {
    for (RecordValues values : Examples()) {
        for (bool const full : {true, false}) {
            if (!full) {
                values.list.clear();
                values.segments.clear();
                values.bitmap.clear();
                values.size = 0;
            }
            Bytes const form = SpellForm(values, full);
            for (bool const subDO : {false, true}) {
                SCOPED_TRACE(NameOf(values));
                Bytes const expected =
                    Received(values, form, subDO && !values.segments.empty() ? values.segments[0].dcid : 0);
                OpenRecord const own(values.dotype, values.fptype, nullptr, 99, form.data(), form.size(), subDO);
                EXPECT_EQ(Buffer(own), expected);
                EXPECT_TRUE(own.ownsBuffer && own.copyMode == OpenRecord::CopyMode::Own && own.subDO == subDO &&
                            own.spare == 0);
                Bytes small(expected.size() - 1, 0xee);
                OpenRecord const away(values.dotype, values.fptype, small.data(), small.size(), form.data(),
                                      form.size(), subDO);
                EXPECT_EQ(Buffer(away), expected);
                EXPECT_TRUE(away.ownsBuffer && small == Bytes(small.size(), 0xee));
                Bytes exact(expected.size(), 0xee);
                OpenRecord borrowed(values.dotype, values.fptype, exact.data(), exact.size(), form.data(), form.size(),
                                    subDO);
                EXPECT_EQ(exact, expected);
                EXPECT_TRUE(!borrowed.ownsBuffer && borrowed.copyMode == OpenRecord::CopyMode::Borrowed);
                borrowed.AddTaskID(1);
                EXPECT_TRUE(borrowed.ownsBuffer && exact == expected);
            }
        }
    }
}

// A form with a changed byte, and what is said of it: the finding, and the constructor's refusal.
struct BadForm {
    char const* field;
    std::size_t at;
    unsigned char byte;
    int code;
    unsigned long offset, found, expected;
    std::string refusal = "32: ";
};

std::string Construction(RecordValues const& values, Bytes const& form, bool subDO = false) {
    return Refusal([&] { OpenRecord(values.dotype, values.fptype, nullptr, 0, form.data(), form.size(), subDO); });
}

void ExpectFinding(RecordValues const& values, BadForm const& bad, bool summed = true) {
    SCOPED_TRACE(NameOf(values) + ": " + bad.field);
    Bytes form = SpellForm(values, true);
    form[bad.at] = bad.byte;
    if (summed) {
        SumForm(form);
    }
    auto const with = [&](auto validate, auto... listener) {
        return validate(form.data(), form.size(), values.dotype, values.fptype, CR_DO_FORM_CHECKSUM, listener...);
    };
    std::vector<Finding> findings;
    EXPECT_EQ(with(DORecordSerializedDiagnose, Collect, &findings), CR_STATUS_CORRUPT_RECORD);
    ExpectOne(findings, {bad.code, 0, bad.offset, bad.found, bad.expected, bad.field, {}}, "serialized DO");
    LogCapture log(1);
    EXPECT_EQ(with(DORecordSerializedValidate), CR_STATUS_CORRUPT_RECORD);
    EXPECT_EQ(log.Take(), "trace 0: " + findings[0].message + "\n");
    EXPECT_EQ(Construction(values, form).substr(0, bad.refusal.size()), bad.refusal);
}

TEST(DORecordExchange, EachFaultOfASegmentFormHasItsFinding) {
    RecordValues const v0 = Example(0, 3), v3 = Example(3, 0), v5 = Example(5, 1);
    // Of type 3: entries of 45 bytes, that is text, NUL, size and offset.
    unsigned long const size = v3.size, separator = 28 + 3 * 45, far = 1ul << 63, much = 1ul << 56;
    for (BadForm const& bad : {
             BadForm{"nfp", 23, 4, CR_FINDING_FORM_CALCULATED, 20, 29 + 4 * 53, 29 + 3 * 53},
             {"zero", 27, 1, CR_FINDING_FORM_ZERO, 24, 1, 0},
             {"segments[0].fingerprint", 28, 'D', CR_FINDING_FORM_FINGERPRINT, 28, 'D', 0},
             {"segments[1].fingerprint", 28 + 45 + 31, 'g', CR_FINDING_FORM_FINGERPRINT, 28 + 45, 'e', 0},
             {"segments[0].fingerprint", 28 + 32, 1, CR_FINDING_FORM_FINGERPRINT, 28, 'd', 0},
             {"separator", separator, 1, CR_FINDING_FORM_ZERO, separator, 1, 0},
             {"segments[0].size", 61, 0x80, CR_FINDING_SEGMENT_SIZE, 61, 0x80020304, 0x7fffffff, "89: "},
             {"segments[0].offset", 65, 0x80, CR_FINDING_SEGMENT_OFFSET, 65, far, far - 1, "89: "},
             {"segments[1].offset", 117, 3, CR_FINDING_SEGMENT_OVERLAP, 110, 0x01020303, 0x01020304, "89: "},
             {"size", 7, 0x11, CR_FINDING_SEGMENT_END, 0, size - 7, size, "89: "},
         }) {
        ExpectFinding(v3, bad);
    }
    ExpectFinding(v0, {"size", 0, 1, CR_FINDING_SEGMENT_PRODUCT, 0, much + v0.size, 3 * v0.ssize, "89: "});
    ExpectFinding(v5, {"size", 0, 1, CR_FINDING_SEGMENT_SUM, 0, much + v5.size, v5.size, "89: "});
    // The constructor takes the checksum as it is, and so does validation where it isn't asked for.
    Bytes form = SpellForm(v3, true);
    unsigned long const sum = SwapBytes(WordAt<unsigned int>(form, 16), 4);
    form[19] ^= 1;
    ExpectFinding(v3, {"checksum", 19, form[19], CR_FINDING_FORM_CHECKSUM, 16, sum ^ 1, sum, ""}, false);
    EXPECT_EQ(DORecordSerializedValidate(form.data(), form.size(), 3, 0, 0), CR_STATUS_OK);
    // The pass goes on to the end, and in order.
    form[27] = form[28] = form[separator] = form[7] = 1;
    std::vector<Finding> findings;
    EXPECT_EQ(DORecordSerializedDiagnose(form.data(), form.size(), 3, 0, 1, Collect, &findings), 32);
    std::string fields;
    for (Finding const& finding : findings) {
        fields += finding.field + " ";
    }
    EXPECT_EQ(fields, "zero segments[0].fingerprint separator size checksum ");
}

TEST(DORecordExchange, EachFaultOfABloomFormHasItsFinding) {
    RecordValues const values = Example(4, 0); // 5 bytes of bitmap, then the list at 37
    Bytes const form = SpellForm(values, true);
    Bytes changed = form;
    changed[45] = 0;
    unsigned long const list = SwapBytes(WordAt<unsigned int>(form, 37), 4);
    unsigned long const changedList = PlainAdler32(changed.data() + 41, changed.data() + 53);
    for (BadForm const& bad : {BadForm{"nfp", 23, 1, CR_FINDING_FORM_BLOOM_SEGMENTS, 20, 1, 0},
                               {"zero", 24, 1, CR_FINDING_FORM_ZERO, 24, 1ul << 24, 0},
                               {"bsize", 31, 6, CR_FINDING_FORM_CALCULATED, 28, 62, 77},
                               {"bsize", 44, 2, CR_FINDING_FORM_CALCULATED, 28, 93, 77},
                               {"unique.checksum", 45, 0, CR_FINDING_FORM_LIST_CHECKSUM, 37, list, changedList},
                               {"end", 76, 1, CR_FINDING_FORM_ZERO, 61, 1, 0}}) {
        ExpectFinding(values, bad);
    }
    unsigned long const sum = SwapBytes(WordAt<unsigned int>(form, 16), 4);
    auto const last = static_cast<unsigned char>(form[19] ^ 1);
    ExpectFinding(values, {"checksum", 19, last, CR_FINDING_FORM_CHECKSUM, 16, sum ^ 1, sum}, false);
    // The second half of the list's bytes is outside of the list's own sum.
    changed = form;
    changed[53] ^= 1;
    SumForm(changed);
    EXPECT_EQ(DORecordSerializedValidate(changed.data(), changed.size(), 4, 0, 0), CR_STATUS_OK);
}

TEST(DORecordExchange, OddArguments) {
    Bytes const form = SpellForm(Example(3, 0), false);
    auto const make = [&](unsigned int dotype, unsigned char fptype, void const* bytes, unsigned long size) {
        return Refusal([&] { OpenRecord(dotype, fptype, nullptr, 0, bytes, size, false); });
    };
    auto const validate = [&](unsigned int dotype, unsigned char fptype, void const* bytes, unsigned int options) {
        return int{DORecordSerializedValidate(bytes, form.size(), dotype, fptype, options)};
    };
    EXPECT_EQ(make(3, 0, nullptr, 0), "65: ");
    EXPECT_EQ(make(6, 0, nullptr, 0), "65: ");
    EXPECT_EQ(make(6, 9, form.data(), form.size()), "113: ");
    EXPECT_EQ(make(259, 0, form.data(), form.size()), "113: ");
    EXPECT_EQ(make(3, 9, form.data(), form.size()), "9: invalid fptype for DO"); // parsed as 16 bytes wide
    EXPECT_EQ(make(3, 9, form.data(), form.size() - 1), "32: ");
    EXPECT_EQ(make(3, 3, form.data(), form.size()), "32: ");
    EXPECT_TRUE(validate(6, 0, form.data(), 0) == 9 && validate(3, 4, form.data(), 0) == 9 &&
                validate(3, 0, nullptr, 0) == 9 && validate(3, 0, form.data(), 2) == 9);
    DORecordHeader* header = nullptr;
    unsigned long size = 0;
    EXPECT_EQ(DORecordHeaderDeserialize(nullptr, &size, form.data(), form.size(), 3, 0), CR_STATUS_NULL_ARGUMENT);
    EXPECT_EQ(DORecordHeaderDeserialize(&header, nullptr, form.data(), form.size(), 3, 0), CR_STATUS_NULL_ARGUMENT);
}

// The form validates exactly when it makes a record; every prefix is refused, and so is a byte more.
TEST(DORecordExchange, ValidationAgreesWithConstruction) {
    for (RecordValues const& values : Examples()) {
        SCOPED_TRACE(NameOf(values));
        Bytes const form = SpellForm(values, true);
        unsigned int good = 0;
        auto const agree = [&](Bytes const& bytes) {
            for (bool const subDO : {false, true}) {
                cr_status_t const status = DORecordSerializedValidate(bytes.data(), bytes.size(), values.dotype,
                                                                      values.fptype, subDO ? CR_DO_SUB_DO : 0);
                EXPECT_EQ(Construction(values, bytes, subDO).empty(), status == CR_STATUS_OK);
                good += status == CR_STATUS_OK;
            }
        };
        for (std::size_t size = 0; size <= form.size() + 1; ++size) {
            Bytes bytes = form;
            bytes.resize(size);
            bytes.shrink_to_fit();
            agree(bytes);
        }
        EXPECT_EQ(good, 2u);
        for (std::size_t bit = 0; bit < 8 * form.size(); ++bit) {
            Bytes bytes = form;
            bytes[bit / 8] = static_cast<unsigned char>(bytes[bit / 8] ^ 1 << bit % 8);
            agree(bytes);
            if (values.dotype == 4) {
                SumForm(bytes);
                agree(bytes);
            }
        }
        EXPECT_GT(good, 100u);
    }
}

// A bloom record with a list, sent and received: its list comes as it was sent and is turned on demand.
TEST(DORecordExchange, BloomRecordsMakeTheRound) {
    RecordValues values = Example(4, 3);
    values.list = {{70, 1}, {80, 2}, {90, 3}};
    values.CID = 80;
    auto const sender = Build(values);
    Bytes const form = Serialized(*sender, false).bytes;
    DORecord receiver(4, 3, nullptr, 0, form.data(), form.size(), false);
    DORecord other(4, 3, nullptr, 0, form.data(), form.size(), false);
    EXPECT_EQ(receiver.AppendBloomAndUniqueDCIDList(), CR_STATUS_OK);
    receiver.SetDCID(80);
    cr_dcid_size_map_t sent, received, merged{{70, 9}, {60, 9}};
    EXPECT_EQ(sender->GetUDCIDSizeList(sent), CR_STATUS_OK);
    EXPECT_EQ(receiver.GetUDCIDSizeList(received), CR_STATUS_OK);
    EXPECT_EQ(sent, received);
    EXPECT_EQ(other.AppendBloom(merged), CR_STATUS_OK);
    EXPECT_EQ(merged, (cr_dcid_size_map_t{{60, 9}, {70, 1}, {80, 2}, {90, 3}}));
    crt_digest_t* a = sender->GetDigest();
    crt_digest_t* b = receiver.GetDigest();
    EXPECT_TRUE(std::equal(a->digest.bytes, a->digest.bytes + 32, b->digest.bytes) && a->dcid == b->dcid);
    CRTDigestDelete(&a);
    CRTDigestDelete(&b);
    EXPECT_EQ(DORecord::ValidateHeader(receiver.GetHeader(), receiver.GetHeaderSize(), 0), CR_STATUS_OK);
}

} // namespace
