// DORecord: digest, text form, binary dump, comparison.

#include "support/record_memory.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <locale>
#include <sstream>
#include <tuple>

namespace {

// The bytes of a record's digest; empty if it has none.
Bytes DigestOf(DORecord const& record) {
    crt_digest_t* digest = record.GetDigest();
    if (digest) {
        EXPECT_EQ(std::pair(digest->kind, digest->dcid), std::pair(record.GetFPType() + 1u, record.GetDCID()));
    }
    Bytes const bytes(digest ? digest->digest.bytes : nullptr, digest ? digest->digest.bytes + 32 : nullptr);
    CRTDigestDelete(&digest);
    return bytes;
}

// Computed by OpenSSL, over the exchange form's body up to the DCIDs, or over a bloom record's bytes from 80 on.
Bytes ExpectedDigest(RecordValues const& values) {
    constexpr char const* kNames[] = {"MD5", "SHA1", "SHA256", "SHA256"};
    bool const bloom = values.dotype == 4;
    SpelledRecord const record = Spell(values);
    Bytes bytes = bloom ? record.bytes : SpellForm(values, false);
    bytes.resize(bloom ? record.taskIds : bytes.size() - 1 - 8 * values.segments.size());
    bytes.erase(bytes.begin(), bytes.begin() + (bloom ? 80 : 28));
    bytes.insert(bytes.end(), {'D', 'O', 0});
    Bytes digest(EVP_MAX_MD_SIZE);
    EXPECT_EQ(1, EVP_Q_digest(nullptr, kNames[values.fptype], nullptr, &bytes[0], bytes.size(), &digest[0], nullptr));
    digest.resize(FingerprintWidth(values.fptype));
    digest.resize(values.dotype == 0 ? 0 : 32);
    return digest;
}

TEST(DORecordDigest, MatchesOpenSSLOverTheFormsBody) {
    for (RecordValues values : Examples()) {
        SCOPED_TRACE(NameOf(values));
        auto const record = Build(values);
        Bytes const digest = DigestOf(*record);
        EXPECT_EQ(digest, ExpectedDigest(values));
        values.list.clear();
        // Containers, references and times are not hashed.
        record->AddTaskID(1);
        values.dotype == 4 ? void() : record->SetSegmentDCID(0, 99);
        EXPECT_EQ(DigestOf(*record), digest);
        for (std::size_t i = 3; values.dotype == 3 && i < 2000; ++i) {
            values.segments.push_back(values.segments[i % 3]);
            values.segments[i].offset = values.size;
            values.segments[i].fingerprint[0] = static_cast<unsigned char>(i);
            values.size += values.segments[i].size;
        }
        EXPECT_EQ(DigestOf(*Build(values)), ExpectedDigest(values));
        if (values.dotype == 4) {
            continue;
        }
        // The digest of one segment is its fingerprint, that of none the hash of an empty body.
        values.segments.resize(1);
        values.size = values.segments[0].size;
        Bytes padded = values.segments[0].fingerprint;
        padded.resize(32);
        EXPECT_EQ(DigestOf(*Build(values)), padded);
        RecordValues const none{.dotype = values.dotype, .fptype = values.fptype};
        Bytes const form = SpellForm(none, false);
        DORecord const empty(values.dotype, values.fptype, nullptr, 0, form.data(), form.size(), false);
        EXPECT_EQ(DigestOf(empty), ExpectedDigest(none));
    }
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
    EXPECT_EQ(stream.width(), 0);
    return stream.str();
}

// No comma before the DCIDs. The offset is read as eight bytes from type 3 on, though type 5 stores four.
std::string ExpectedText(RecordValues const& v, std::string const& references) {
    SpelledRecord const record = Spell(v);
    std::ostringstream text;
    text << "3,1,2," << v.CID << "," << v.size << "," << v.ssize << "," << v.CRC << "," << v.ctime << "," << v.mtime
         << "," << int{v.fptype} << "," << int{v.dotype} << "," << v.segments.size() << ",[";
    std::string dcids;
    for (std::size_t i = 0; i < v.segments.size(); ++i) {
        SegmentValues const& segment = v.segments[i];
        std::size_t const entry = record.entries + i * (record.dcids - record.entries) / v.segments.size();
        auto const offset = WordAt<unsigned long>(record.bytes, entry + segment.fingerprint.size() + 4);
        text << (i == 0 ? "[" : ",[") << HexOf(segment.fingerprint)
             << (v.dotype > 1 ? "," + std::to_string(segment.size) : "")
             << (v.dotype > 2 ? "," + std::to_string(offset) : "") << "]";
        dcids += (i == 0 ? "" : ",") + std::to_string(segment.dcid);
    }
    text << "[" << dcids << "]],[" << references << "]";
    return text.str();
}

TEST(DORecordText, IsOneLineOfPlainDecimals) {
    for (RecordValues values : Examples()) {
        SCOPED_TRACE(NameOf(values));
        auto const record = Build(values);
        EXPECT_EQ(TextOf(*record), ExpectedText(values, ""));
        record->AddDSID(5);
        record->AddTaskID(17);
        record->AddTaskID(16);
        record->AddSerializedTRefs("\0\x8\0\0\0\0\0\0\0\1", 10); // kind 0 is not printed
        values.mtime = record->GetMTime();
        EXPECT_EQ(TextOf(*record), ExpectedText(values, "task:16,task:17,dsid:5"));
    }
}

// Keeps what is written, and reads the record meanwhile.
struct Onlooker : std::streambuf {
    std::streamsize xsputn(char const* from, std::streamsize count) override {
        written.insert(written.end(), from, from + count);
        seen = {record.IsInNetworkOrder(), record.GetSize(), record.GetSegmentSize(0)};
        return count;
    }
    DORecord const& record;
    Bytes written{};
    std::tuple<bool, unsigned long, unsigned int> seen{};
    explicit Onlooker(DORecord const& of) : record(of) {}
};

TEST(DORecordDump, IsInHostOrderAndKeepsAConsistentRecord) {
    for (RecordValues values : Examples()) {
        values.references = {{2, 5}, {4, 6}};
        auto const record = Build<OpenRecord>(values);
        record->AddTaskID(5);
        record->AddDSID(6);
        values.mtime = record->GetMTime();
        for (bool const network : {false, true}) {
            SCOPED_TRACE(NameOf(values));
            Onlooker onlooker(*record);
            std::ostream stream(&onlooker);
            stream.width(9999);
            EXPECT_EQ(&record->ToStream(stream, true), &stream);
            EXPECT_EQ(onlooker.written, Spell(values).bytes);
            EXPECT_EQ(onlooker.seen, std::tuple(false, values.size, record->GetSegmentSize(0)));
            EXPECT_EQ(StoredBytes(*record), Spell(values, network).bytes);
            EXPECT_EQ(record->IsInNetworkOrder(), network);
            record->HostToNetwork(0);
        }
    }
}

// Nothing is written, and the record is unchanged.
TEST(DORecordOutput, RejectsSectionsOutsideTheBuffer) {
    std::ostringstream stream;
    using Use = std::function<void(OpenRecord&)>;
    Use const digest = [](OpenRecord&r) { r.GetDigest(); }, compare = [](OpenRecord&r) { (void)(r == r); },
              text = [&](OpenRecord&r) { r.ToStream(stream, false); },
              dump = [&](OpenRecord&r) { r.ToStream(stream, true); }, swap = [](OpenRecord&r) { r.HostToNetwork(0); };
    // For an unknown type, the offset that is read must also be in the buffer.
    Use const unknown = [](OpenRecord& r) { Hold(r, Bytes(104)), r.header->nfp = 1, r.header->dotype = 200; };
    // The list's count, which would be swapped, is after the buffer's end.
    Use const listed = [](OpenRecord& r) { r.HostToNetwork(0), r.header->nudcid = 1u << 24; };
    Use const many = [](OpenRecord& r) { r.header->nfp = r.header->bsize = 999; };
    Use const longer = [](OpenRecord& r) { r.setRecSize(r.GetHeaderSize() + 1); };
    std::tuple<unsigned char, Use, Use, char const*> const rows[] = {
        {2, [](OpenRecord& r) { r.SetFPType(9); }, digest, "111: "},
        {2, many, digest, kInvalidSize},
        {4, many, digest, kInvalidSize},
        {2, swap, digest, "9: GetDigest called while DO record in network order."},
        {2, unknown, text, kInvalidSize},
        {2, many, text, kInvalidSize},
        {2, swap, text, "9: cannot write DO record to stream in text form because it is in network order"},
        {4, listed, dump, kInvalidSize},
        {4, longer, dump, kInvalidSize},
        {1, many, compare, kInvalidSize}};
    for (auto const& [dotype, spoil, action, refusal] : rows) {
        Use const& use = action; // Clang 14 captures no structured binding
        RecordValues values = Example(dotype, 0);
        values.list.clear();
        auto const record = Build<OpenRecord>(values);
        spoil(*record);
        Bytes const before = Buffer(*record);
        bool const network = record->IsInNetworkOrder();
        EXPECT_EQ(Refusal([&] { use(*record); }), refusal);
        EXPECT_EQ(std::tuple(Buffer(*record), record->IsInNetworkOrder(), stream.str()),
                  std::tuple(before, network, ""));
    }
}

// Each byte of the header and the entries makes two records differ, except sizes, times, and counts other than ntaskid
// and nfp. No byte after the entries does.
TEST(DORecordComparison, ComparesHeaderAndEntriesExceptSizesAndTimes) {
    for (unsigned char dotype = 0; dotype < 6; ++dotype) {
        RecordValues const values = Example(dotype, 0);
        SpelledRecord const spelled = Spell(values);
        auto const a = Build<OpenRecord>(values), b = Build<OpenRecord>(values);
        for (std::size_t at = 0; at < spelled.bytes.size(); ++at) {
            reinterpret_cast<unsigned char*>(b->header)[at] ^= 1;
            bool const same = at >= spelled.dcids || (at >= 0x04 && at < 0x10) || (at >= 0x2c && at < 0x34) ||
                              (at >= 0x3c && at < 0x4c) || (at >= 0x4e && at < 0x50);
            EXPECT_EQ(std::tuple(*a == *b, *a != *b, *b == *a), std::tuple(same, !same, same)) << at;
            reinterpret_cast<unsigned char*>(b->header)[at] ^= 1;
        }
        b->HostToNetwork(0);
        EXPECT_NE(*a, *b);
    }
}

// Of the references of a kind, the number and the first one.
TEST(DORecordComparison, ComparesNumberAndFirstReferenceOfEachKind) {
    auto const a = Build(Example(1, 0)), b = Build(Example(1, 0));
    a->AddTaskID(1), a->AddTaskID(2);
    b->AddTaskID(1);
    EXPECT_NE(*a, *b);
    b->AddTaskID(5);
    EXPECT_EQ(*a, *b);
    b->AddTaskID(0), a->AddTaskID(3);
    EXPECT_NE(*a, *b);
}

} // namespace
