// SORecord: its bytes in both orders, what it rejects, and records made from received bytes.

#include <crrecord/SORecord.h>

#include "support/do_record.h"

#include <gtest/gtest.h>

#include <concepts>
#include <cstring>

namespace {

// 33 bytes, with a NUL in the middle and none at the end.
char const kKey[] = "0123456789\0ABCDEFGHIJ\0abcdefghijk";
std::string const kKeyHex = "30313233343536373839004142434445464748494a006162636465666768696a6b";

SORecord Made() {
    return SORecord(2, 0x4a4b4c4d, 0x5a5b5c5d, 0x6a6b6c6d, kKey, 0xc7, 3);
}

void Convert(SORecord& record, bool toNetwork) {
    toNetwork ? record.HostToNetwork(0) : record.NetworkToHost(CR_SO_STRIP_TASKIDS); // there are no task ids
}

Bytes BytesOf(SORecord const& record) {
    auto const* const bytes = reinterpret_cast<unsigned char const*>(record.GetHeader());
    return Bytes(bytes, bytes + record.GetHeaderSize());
}

using Numbers = std::vector<unsigned long>;

static_assert(!std::movable<SORecord>);

TEST(SORecord, SettersAndGettersUseHostValuesInEitherOrder) {
    // The key index has the writer's order, whatever the record's.
    Bytes const bytes = FromHex("0002000000000068000000000000000081828384000000000a1a2a3a4a5a6a7a0000000000000000"
                                "0b1b2b3b4b5b6b7b9192939400000000" +
                                kKeyHex + "02fe00" + (kBig ? "d1d2" : "d2d1") + "00000000000000000000");
    for (bool const network : {false, true}) {
        SORecord record(2, 1, 0, 0, std::string(33, 'x').c_str(), 0, 0);
        record.GetHeader()->fileid = 7;
        Convert(record, network);
        // Stored in a file, the segment is in no container.
        EXPECT_EQ(Numbers({record.GetFileID(), record.GetPathID(), record.GetDCID()}), Numbers({7, 1, 0}));
        record.SetFlags(0);
        record.SetDCID(0x0a1a2a3a4a5a6a7a);
        record.SetSize(0x0b1b2b3b4b5b6b7b);
        record.SetCRC(0x91929394);
        record.SetCheckTime(0x81828384);
        record.SetFPType(2);
        record.SetCryptoMode(0xfe);
        record.SetKeyIndex(0xd1d2);
        record.SetKey(kKey);
        record.SetKey(record.GetKey());
        for (bool const order : {network, true, true, false, false, true}) { // twice is once
            Convert(record, order);
            EXPECT_EQ(std::pair(record.IsInNetworkOrder(), BytesOf(record) == bytes), std::pair(order, order || kBig));
            EXPECT_EQ(Numbers({record.GetFlags(), record.GetFileID(), record.GetPathID(), record.GetDCID(),
                               record.GetSize(), record.GetCRC(), record.GetCheckTime(), record.GetFPType(),
                               record.GetCryptoMode(), record.GetKeyIndex()}),
                      Numbers({0, 0, 0x0a1a2a3a4a5a6a7a, 0x0a1a2a3a4a5a6a7a, 0x0b1b2b3b4b5b6b7b, 0x91929394, 0x81828384,
                               2, 0xfe, 0xd1d2}));
            EXPECT_EQ(std::memcmp(record.GetKey(), kKey, CR_SO_KEY_SIZE), 0);
        }
    }
}

TEST(SORecord, RejectsInvalidValuesUnchanged) {
    for (bool const network : {false, true}) {
        SORecord record = Made();
        Convert(record, network);
        Bytes const before = BytesOf(record);
        for (unsigned short value = 0; value < 260; ++value) {
            EXPECT_EQ(Refusal([&] { record.SetFlags(value); }), value == 0 || value == 2 ? "" : "9: ") << value;
            EXPECT_EQ(Refusal([&] { record.SetDCID(value); }), value == 1 || value >= 64 ? "" : "9: ") << value;
            auto const fptype = static_cast<unsigned char>(value);
            EXPECT_EQ(Refusal([&] { record.SetFPType(fptype); }), fptype < 4 ? "" : "9: ") << value;
        }
        record.SetFlags(2);
        record.SetDCID(0x4a4b4c4d);
        record.SetFPType(3);
        EXPECT_EQ(Refusal([&] { record.SetFlags(0x0200); }), "9: ");
        EXPECT_EQ(Refusal([&] { record.SetKey(nullptr); }), "9: ");
        EXPECT_EQ(BytesOf(record), before);
    }
    // Checked in this order: flags, container, key, type. A key after an invalid argument is not read.
    auto const* const badKey = reinterpret_cast<char const*>(1);
    EXPECT_EQ(Refusal([&] { SORecord(1, 64, 0, 0, badKey, 0, 0); }), "9: ");
    EXPECT_EQ(Refusal([&] { SORecord(0, 63, 0, 0, badKey, 0, 0); }), "9: ");
    EXPECT_EQ(Refusal([&] { SORecord(0, 64, 0, 0, nullptr, 0, 0); }), "9: ");
    EXPECT_EQ(Refusal([&] { SORecord(0, 64, 0, 0, kKey, 0, 4); }), "9: ");
}

// Counts written through the header. The 8 bytes after the fixed part hold one task id, which is stripped to zeros.
TEST(SORecord, ConversionRejectsCountsBeyondItsBuffer) {
    struct {
        unsigned int ntaskids, nfp, options;
        bool inside;
    } const rows[] = {{1, 0, 0, true},    {2, 0, 0, false},        {0, 1, 0, false},
                      {~0u, 0, 0, false}, {1u << 29, 0, 0, false}, {0, 1u << 28, 0, false}, // both wrap to 0 in 32 bits
                      {0, 0, 1, true},    {1, 0, 1, true},         {~0u, 0, 1, true},
                      {0, 1, 1, false},   {1, ~0u, 1, false}};
    for (auto const& [ntaskids, nfp, options, inside] : rows) {
        for (bool const network : {false, true}) {
            SORecord record = Made(), other = Made();
            Convert(record, network);
            Convert(other, !network);
            bool const big = network && !kBig;
            record.GetHeader()->ntaskids = big ? __builtin_bswap32(ntaskids) : ntaskids;
            record.GetHeader()->nfp = big ? __builtin_bswap32(nfp) : nfp;
            std::memset(&record.GetHeader()->word94 + 1, 0x11, 8);
            Bytes const before = BytesOf(record);
            auto const convert = [&, o = options] { network ? record.NetworkToHost(o) : record.HostToNetwork(o); };
            EXPECT_EQ(Refusal(convert), inside ? "" : "9: ") << ntaskids << " " << nfp;
            Bytes expected = inside ? BytesOf(other) : before;
            if (inside && (options == 0 || ntaskids == 0)) {
                SetLow(expected, !network, 12, 4, ntaskids);
                std::memset(&expected[96], 0x11, 8);
            }
            EXPECT_EQ(BytesOf(record), expected) << ntaskids << " " << nfp;
            EXPECT_EQ(record.IsInNetworkOrder(), network != inside);
        }
    }
}

TEST(SORecord, ConstructsExactBytesAndComparesThemRaw) {
    SORecord record = Made(), other = Made();
    EXPECT_EQ(std::pair(record == other, record != other), std::pair(true, false));
    EXPECT_EQ(record.GetHeader()->size, 0x5a5b5c5du);
    other.HostToNetwork(0);
    EXPECT_EQ(record == other, kBig);
    record.HostToNetwork(0);
    EXPECT_EQ(BytesOf(record),
              FromHex("000200020000006800000000000000000000000000000000000000004a4b4c4d0000000000000000"
                      "000000005a5b5c5d6a6b6c6d00000000" +
                      kKeyHex + "03c700000000000000000000000000"));
    for (std::size_t at = 0; at < CR_SO_RECORD_SIZE; ++at) {
        reinterpret_cast<unsigned char*>(record.GetHeader())[at] ^= 0x80;
        EXPECT_EQ(std::pair(record == other, record != other), std::pair(false, true)) << at;
        reinterpret_cast<unsigned char*>(record.GetHeader())[at] ^= 0x80;
    }
}

TEST(SORecord, FromBufferReadsEitherOrder) {
    auto const from = [](Bytes const& bytes, unsigned int options = 0) {
        return Refusal([&] { SORecord::FromBuffer(bytes.data(), bytes.size(), options); });
    };
    for (bool const network : {false, true}) {
        Bytes bytes = Golden({network, 2, 0, 0});
        auto const record = SORecord::FromBuffer(bytes.data(), bytes.size());
        EXPECT_EQ(BytesOf(*record), Golden({false, 2, 0, 0}));
        EXPECT_EQ(from(bytes, 1) + from(bytes, 4), "9: 9: ");
        EXPECT_EQ(from(Bytes(bytes.begin(), bytes.end() - 1)), "32: Invalid SO record: recsize 104, size 103");
        EXPECT_EQ(from(Golden({network, 2, 1, 0})),
                  "32: Invalid SO record: size 112, expected 104"); // good, but longer
        bytes[89] = 4;
        EXPECT_EQ(from(bytes), "32: Invalid SO record: invalid fp type 4");
        bytes[0] = bytes[1] = 5;
        EXPECT_EQ(from(bytes), "32: Invalid SO record: type 1285, expected 2");
    }
    EXPECT_EQ(from(Bytes(95)), "32: Invalid SO record: size 95, expected at least 96");
    EXPECT_EQ(Refusal([] { SORecord::FromBuffer(nullptr, 104); }), "9: ");
}

} // namespace
