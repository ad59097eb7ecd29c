// DORecord: digest, text form, binary dump, comparison.

#include "support/record_memory.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <locale>
#include <memory>
#include <sstream>

namespace {

// The object digest of some bytes, by OpenSSL in one go.
Bytes OneShot(unsigned char fptype, Bytes bytes) {
    constexpr char const* kNames[] = {"MD5", "SHA1", "SHA256", "SHA256"};
    bytes.insert(bytes.end(), {'D', 'O', 0});
    Bytes digest(EVP_MAX_MD_SIZE);
    EXPECT_EQ(EVP_Q_digest(nullptr, kNames[fptype], nullptr, bytes.data(), bytes.size(), digest.data(), nullptr), 1);
    digest.resize(FingerprintWidth(fptype));
    digest.resize(32);
    return digest;
}

// The bytes of a record's digest; empty where it has none.
Bytes DigestOf(DORecord const& record) {
    crt_digest_t* digest = record.GetDigest();
    if (!digest) {
        return {};
    }
    EXPECT_TRUE(digest->kind == record.GetFPType() + 1u && digest->dcid == record.GetDCID());
    Bytes const bytes(digest->digest.bytes, digest->digest.bytes + 32);
    CRTDigestDelete(&digest);
    return bytes;
}

// What stands for a record: the body of its exchange form as far as the DCIDs, or what a bloom record has at 80.
Bytes Digested(RecordValues const& values) {
    SpelledRecord const record = Spell(values);
    if (values.dotype == 4) {
        return Bytes(record.bytes.begin() + 80, record.bytes.begin() + static_cast<std::ptrdiff_t>(record.taskIds));
    }
    Bytes const form = SpellForm(values, false);
    return Bytes(form.begin() + 28, form.end() - 1 - static_cast<std::ptrdiff_t>(8 * values.segments.size()));
}

TEST(DORecordDigest, IsThatOfTheFormsBody) {
    for (RecordValues values : Examples()) {
        SCOPED_TRACE(NameOf(values));
        auto const record = Build(values);
        Bytes const digest = DigestOf(*record);
        EXPECT_EQ(digest, values.dotype == 0 ? Bytes() : OneShot(values.fptype, Digested(values)));
        // Neither containers nor references nor times enter it.
        record->AddTaskID(1);
        if (values.dotype != 4) {
            record->SetSegmentDCID(0, 99);
        }
        EXPECT_EQ(DigestOf(*record), digest);
        if (values.dotype == 4) {
            values.list.clear();
            EXPECT_EQ(DigestOf(*Build(values)), OneShot(values.fptype, Digested(values)));
            continue;
        }
        // One segment stands for itself, and no segments for nothing.
        values.segments.resize(1);
        values.size = values.segments[0].size;
        Bytes padded = values.segments[0].fingerprint;
        padded.resize(32);
        EXPECT_EQ(DigestOf(*Build(values)), padded);
        Bytes const none = SpellForm({.dotype = values.dotype, .fptype = values.fptype}, false);
        DORecord const empty(values.dotype, values.fptype, nullptr, 0, none.data(), none.size(), false);
        EXPECT_EQ(DigestOf(empty), values.dotype == 0 ? Bytes() : OneShot(values.fptype, {}));
    }
}

TEST(DORecordDigest, OfManySegments) {
    for (unsigned char fptype = 0; fptype < 4; ++fptype) {
        RecordValues values = Example(3, fptype);
        for (unsigned int i = 3; i < 2000; ++i) {
            SegmentValues segment = values.segments[i % 3];
            segment.offset = values.size;
            segment.fingerprint[0] = static_cast<unsigned char>(i);
            values.size += segment.size;
            values.segments.push_back(segment);
        }
        values.list.clear();
        EXPECT_EQ(DigestOf(*Build(values)), OneShot(fptype, Digested(values)));
    }
}

TEST(DORecordDigest, Refusals) {
    auto const record = Build<OpenRecord>(Example(2, 0));
    record->SetFPType(9);
    EXPECT_EQ(Refusal([&] { record->GetDigest(); }), "111: ");
    record->SetFPType(3);
    record->header->nfp = 9;
    EXPECT_EQ(Refusal([&] { record->GetDigest(); }), kInvalidSize);
    record->header->nfp = 3;
    record->HostToNetwork(0);
    EXPECT_EQ(Refusal([&] { record->GetDigest(); }), "9: GetDigest called while DO record in network order.");
    auto const bloom = Build<OpenRecord>(Example(4, 0));
    bloom->header->bsize += 100;
    EXPECT_EQ(Refusal([&] { bloom->GetDigest(); }), kInvalidSize);
}

std::string TextOf(DORecord const& record) {
    struct Grouped : std::numpunct<char> {
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
    };
    std::ostringstream stream;
    stream.imbue(std::locale(std::locale::classic(), new Grouped));
    stream << std::hex << std::showbase << std::showpos;
    stream.width(40);
    EXPECT_EQ(&record.ToStream(stream, false), &stream);
    return stream.str();
}

// No comma in front of the DCIDs; eight bytes at an offset's place from type 3 on, though type 5 has four of its own.
std::string ExpectedText(RecordValues const& values, std::string const& references) {
    SpelledRecord const record = Spell(values);
    std::ostringstream text;
    text << "3,1,2," << values.CID << "," << values.size << "," << values.ssize << "," << values.CRC << ","
         << values.ctime << "," << values.mtime << "," << int{values.fptype} << "," << int{values.dotype} << ","
         << values.segments.size() << ",[";
    std::string dcids;
    for (std::size_t i = 0; i < values.segments.size(); ++i) {
        SegmentValues const& segment = values.segments[i];
        std::size_t const stride = (record.dcids - record.entries) / values.segments.size();
        std::size_t const place = record.entries + i * stride + segment.fingerprint.size() + 4;
        text << (i == 0 ? "[" : ",[") << HexOf(segment.fingerprint);
        if (values.dotype > 1) {
            text << "," << segment.size;
        }
        if (values.dotype > 2) {
            text << "," << WordAt<unsigned long>(record.bytes, place);
        }
        text << "]";
        dcids += (i == 0 ? "" : ",") + std::to_string(segment.dcid);
    }
    text << "[" << dcids << "]],[" << references << "]";
    return text.str();
}

TEST(DORecordText, IsOneLineOfPlainDecimals) {
    for (RecordValues const& values : Examples()) {
        SCOPED_TRACE(NameOf(values));
        auto const record = Build(values);
        EXPECT_EQ(TextOf(*record), ExpectedText(values, ""));
        record->AddDSID(5);
        record->AddTaskID(17);
        record->AddTaskID(16);
        RecordValues touched = values;
        touched.mtime = record->GetMTime();
        EXPECT_EQ(TextOf(*record), ExpectedText(touched, "task:16,task:17,dsid:5"));
    }
    // The format's description says nothing of the DCIDs.
    EXPECT_EQ(DORecord::TEXT_STREAM_FORMAT_DESCRIPTION,
              "type,formatversion,flags,CID,size,ssize,CRC,ctime,mtime,fptype,dotype,nfp,"
              "[[segmentFP,{segmentSize{,segmentOffset}?}?]*],[TRefs*]");
}

TEST(DORecordText, Refusals) {
    auto const record = Build<OpenRecord>(Example(2, 0));
    std::ostringstream stream;
    auto const write = [&] { record->ToStream(stream, false); };
    // A type without a layout of its own must have room for the offset that is read for it.
    Bytes bytes = Buffer(*record);
    bytes.resize(104);
    Hold(*record, bytes);
    record->header->nfp = 1;
    record->header->nudcid = 0;
    record->header->dotype = 200;
    EXPECT_EQ(Refusal(write), kInvalidSize);
    record->header->nfp = 0xffffffff;
    record->header->dotype = 2;
    EXPECT_EQ(Refusal(write), kInvalidSize);
    record->networkOrder = true;
    EXPECT_EQ(Refusal(write), "9: cannot write DO record to stream in text form because it is in network order");
    EXPECT_EQ(stream.str(), "");
}

// Takes nothing.
struct FullDevice : std::streambuf {
    std::streamsize xsputn(char const*, std::streamsize) override { return 0; }
};

TEST(DORecordDump, IsInHostOrderAndLeavesTheRecordAsItWas) {
    for (RecordValues const& values : Examples()) {
        for (bool const network : {false, true}) {
            SCOPED_TRACE(NameOf(values));
            auto const record = Build<OpenRecord>(values);
            record->AddTaskID(5);
            record->AddDSID(6);
            RecordValues referenced = values;
            referenced.mtime = record->GetMTime();
            referenced.references = {{2, 5}, {4, 6}};
            if (network) {
                record->HostToNetwork(0);
            }
            std::ostringstream stream;
            stream.width(9999);
            EXPECT_EQ(&record->ToStream(stream, true), &stream);
            std::string const dumped = stream.str();
            EXPECT_EQ(Bytes(dumped.begin(), dumped.end()), Spell(referenced).bytes);
            Bytes const stored = Spell(referenced, network).bytes;
            EXPECT_TRUE(std::equal(stored.begin(), stored.end(), Buffer(*record).begin()));

            FullDevice device;
            std::ostream full(&device);
            full.exceptions(std::ios::badbit);
            EXPECT_THROW(record->ToStream(full, true), std::ios::failure);
            EXPECT_TRUE(std::equal(stored.begin(), stored.end(), Buffer(*record).begin()));
            EXPECT_EQ(record->IsInNetworkOrder(), network);
        }
    }
}

TEST(DORecordDump, StaysInItsBuffer) {
    std::ostringstream stream;
    RecordValues bare = Example(4, 0);
    bare.list.clear();
    for (bool const network : {false, true}) {
        auto const record = Build<OpenRecord>(bare);
        if (network) {
            record->HostToNetwork(0);
            // The list's count would be turned behind the buffer's end.
            record->header->nudcid = static_cast<unsigned int>(SwapBytes(1, 4));
        } else {
            record->setRecSize(record->GetHeaderSize() + 1);
        }
        Bytes const before = Buffer(*record);
        EXPECT_EQ(Refusal([&] { record->ToStream(stream, true); }), kInvalidSize);
        EXPECT_EQ(Buffer(*record), before);
        EXPECT_EQ(record->IsInNetworkOrder(), network);
    }
    EXPECT_EQ(stream.str(), "");
}

// Of the header and the entries, each byte alone makes two records differ, but for the fields named here; nothing
// behind the entries does.
TEST(DORecordComparison, LooksAtSomeFields) {
    constexpr std::pair<std::size_t, std::size_t> kLeftOut[] = {
        {0x04, 0x10}, {0x2c, 0x34}, {0x3c, 0x4c}, {0x4e, 0x50}}; // sizes, times, counts but ntaskid and nfp
    for (unsigned char dotype = 0; dotype < 6; ++dotype) {
        RecordValues const values = Example(dotype, 0);
        SpelledRecord const spelled = Spell(values);
        auto const a = Build<OpenRecord>(values);
        for (std::size_t at = 0; at < spelled.bytes.size(); ++at) {
            auto const b = Build<OpenRecord>(values);
            reinterpret_cast<unsigned char*>(b->header)[at] ^= 1;
            bool const leftOut =
                at >= spelled.dcids || std::any_of(std::begin(kLeftOut), std::end(kLeftOut),
                                                   [=](auto field) { return at >= field.first && at < field.second; });
            EXPECT_TRUE((*a == *b) == leftOut && (*a != *b) != leftOut && (*b == *a) == leftOut) << at;
        }
        auto const b = Build(values);
        b->SetSubDO(true);
        EXPECT_EQ(*a, *b);
        b->HostToNetwork(0);
        EXPECT_NE(*a, *b);
    }
}

// Of the references of a kind, the number and the first one.
TEST(DORecordComparison, LooksAtFirstReferences) {
    auto const with = [](std::vector<unsigned long> const& ids) {
        auto record = Build(Example(1, 0));
        for (unsigned long const id : ids) {
            record->AddTaskID(id);
            record->AddDSID(7);
        }
        return record;
    };
    EXPECT_TRUE(*with({1, 2, 3}) == *with({1, 5, 9}));
    EXPECT_FALSE(*with({1, 2}) == *with({0, 2}));
    EXPECT_FALSE(*with({1, 2}) == *with({1}));
    auto const a = Build<OpenRecord>(Example(1, 0)), b = Build<OpenRecord>(Example(1, 0));
    a->header->nfp = b->header->nfp = 999;
    EXPECT_EQ(Refusal([&] { (void)(*a == *b); }), kInvalidSize);
}

} // namespace
