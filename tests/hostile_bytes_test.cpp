// Ways in which such readers go wrong: counts multiplied in 32 bits, memory taken for what is only claimed, sums that
// wrap before they are compared, and rules that received bytes have to keep and the builders' arguments don't.

#include "support/clock.h"
#include "support/fault.h"
#include "support/log_capture.h"
#include "support/record_memory.h"

#include <crrecord/DORecordView.h>

#include <gtest/gtest.h>

namespace {

// Multiplied in 32 bits, each of these counts gives the same sum as before: a bit more in its highest byte. Nothing is
// allocated by the count, nor for the trace's message.
TEST(HostileBytes, CountsThatWrapAreRefusedWithoutMemory) {
    std::tuple<unsigned char, std::size_t, unsigned char> const rows[] = {
        {1, 0x38, 0x40}, {3, 0x38, 0xc0}, {3, 0x3c, 0x10}, {4, 0x3c, 0xf0},
        {0, 0x44, 0xff}, {4, 0x48, 0xff}, {2, 0x34, 0x20}, {5, 0x40, 0x40}};
    for (auto const& [dotype, offset, highest] : rows) {
        for (bool const network : {false, true}) {
            bool const big = kBig || (network && offset != 0x34 && offset != 0x40); // legacy counts don't turn
            Bytes b = Spell(Example(dotype, 1), network).bytes, form = SpellForm(Example(dotype, 1), false);
            b[offset + (big ? 0 : 3)] |= highest;
            form[dotype == 4 ? 28 : 20] |= highest;
            LogCapture log(1);
            for (auto const& [allocations, take] :
                 std::initializer_list<std::pair<unsigned long, std::function<void()>>>{
                     {2, [&] { DORecord::FromBuffer(b.data(), b.size()); }}, // a record and a copy of the bytes
                     {0, [&] { DORecordView(b.data(), b.size()); }},
                     {0, [&] { DORecord::Wrap(b.data(), b.size(), b.size(), false); }},
                     {0, [&, type = dotype] { DORecord(type, 1, nullptr, 0, form.data(), form.size(), false); }}}) {
                auto const outcome = fault::Run(
                    [&call = take] {
                        try {
                            return call(), CR_STATUS_OK;
                        } catch (Cr_ErrnoException const& refusal) {
                            return refusal.GetStatus();
                        }
                    },
                    0);
                EXPECT_TRUE(outcome.status == 32 && outcome.attempts == allocations)
                    << offset << " " << outcome.attempts;
            }
        }
    }
}

// What validation refuses of a segment list the builder doesn't make, and what it makes passes.
TEST(HostileBytes, BuildersKeepTheRulesOfTheReaders) {
    unsigned long const top = 1ul << 63, half = 1ul << 31;
    std::tuple<unsigned char, unsigned long, unsigned long, unsigned long, unsigned long, bool> const rows[] = {
        {1, 301, 100, 0, 0, false},
        {1, 3, 0x5555555555555556, 0, 0, false}, // the product is 2^64 + 2 and wraps to 2
        {1, 2, 0x5555555555555556, 0, 0, true},
        {2, half + 1, 0, half - 1, 0, true},
        {2, half + 2, 0, half, 0, false},
        {3, top, 0, 9, top - 2, true},
        {3, top, 0, 9, top - 1, false},
        {3, 9, 0, 9, 8, false}};
    for (auto const& [dotype, size, ssize, first, offset, good] : rows) {
        RecordValues values{.dotype = dotype, .size = size, .ssize = ssize};
        values.segments = {{Bytes(16), static_cast<unsigned int>(first), 0, 64},
                           {Bytes(16), 1, offset, 64},
                           {Bytes(16), 1, offset + 1, 64}};
        Bytes const bytes = Spell(values).bytes, form = SpellForm(values, false);
        EXPECT_EQ(Refusal([&] { Build(values); }).empty(), good) << size;
        auto const receive = [&, type = dotype] { DORecord(type, 0, nullptr, 0, form.data(), form.size(), false); };
        EXPECT_EQ(Refusal(receive).empty(), good) << size;
        EXPECT_EQ(DORecordSerializedValidate(form.data(), form.size(), dotype, 0, 0), good ? 0 : 32);
        EXPECT_EQ(DORecordHeaderValidate(bytes.data(), static_cast<unsigned int>(bytes.size()), 0), good ? 0 : 32);
        auto const copy = [&] {
            return fault::StatusOf(
                [&]() -> decltype(auto) { return DORecord::FromBuffer(bytes.data(), bytes.size()); });
        };
        EXPECT_EQ(fault::Run(copy, 1, true).status, good ? 22 : 32); // without memory, too
    }
}

TEST(HostileBytes, EnumerationsAreCheckedBeforeTheyAreIndexes) {
    for (unsigned int value = 0; value < 256; ++value) {
        for (bool const isDotype : {false, true}) {
            Bytes b = Spell(Example(2, 1)).bytes, form = SpellForm(Example(2, 1), false);
            b[isDotype ? 0x4d : 0x4c] = static_cast<unsigned char>(value);
            unsigned char const dotype = b[0x4d], fptype = b[0x4c];
            bool const good = dotype == 2 && fptype < 3; // wider fingerprints make it another size
            EXPECT_EQ(Refusal([&] { DORecord::FromBuffer(b.data(), b.size()); }).empty(), good) << value;
            EXPECT_EQ(Refusal([&] { DORecord(dotype, fptype, nullptr, 0, form.data(), form.size(), false); }).empty(),
                      good);
        }
        Bytes const reference = SpellReferences({{static_cast<int>(value), 1}});
        _cr_tref_t* made = CRTRefNewDeserialize(reference.data(), reference.size(), CR_TREF_SERIALIZED, nullptr);
        EXPECT_EQ(made != nullptr, value < 11) << value;
        CRTRefDelete(&made);
    }
}

// Nothing of the buffer is left when a listener is told of it. Text without an end is not in the message.
TEST(HostileBytes, FindingsSayWhatWasCompared) {
    std::pair<Bytes, std::string> told;
    auto& [bytes, seen] = told;
    auto const listen = [](cr_finding_t const* finding, void* context) {
        auto& [buffer, text] = *static_cast<std::pair<Bytes, std::string>*>(context);
        std::fill(buffer.begin(), buffer.end(), '\0');
        text = std::to_string(finding->found) + ": " + finding->message;
        return false;
    };
    bytes = Spell(Example(2, 1)).bytes;
    bytes[0x4d] = 0xfe;
    EXPECT_EQ(DORecordDiagnose(bytes.data(), bytes.size(), 0, listen, &told), 32);
    EXPECT_EQ(seen, "254: Invalid DO record: DO type 254, expected at most 5");
    bytes = SpellForm(Example(2, 1), false);
    std::fill(bytes.begin() + 28, bytes.end(), 'f');
    EXPECT_EQ(DORecordSerializedDiagnose(bytes.data(), bytes.size(), 2, 1, 0, listen, &told), 32);
    EXPECT_EQ(seen, "102: Invalid serialized DO: the fingerprint of segment 0 is not 32 lower-case digits and a NUL");
}

// Null pointers beside counts of zero.
TEST(HostileBytes, NothingIsMadeOfNothing) {
    for (unsigned char dotype = 0; dotype < 6; ++dotype) {
        RecordValues values{.dotype = dotype, .flags = 0, .CID = 0, .ctime = test_clock::now, .mtime = test_clock::now};
        Bytes const form = SpellForm(values, true);
        values.CRC = BigEndianAt(form, 16);
        Bytes const bytes = Spell(values).bytes;
        OpenRecord record(dotype, 0, nullptr, 0, form.data(), form.size(), false);
        record.expand(0);
        record.AddSerializedTRefs(nullptr, 0);
        EXPECT_TRUE(StoredBytes(record) == bytes) << +dotype;
        EXPECT_TRUE(StoredBytes(*DORecord::FromBuffer(bytes.data(), bytes.size())) == bytes) << +dotype;
        EXPECT_EQ(Refusal([&] { Build(values); }),
                  dotype == 4 ? "9: Got empty bloom filter bitmap." : "9: Got empty SO list.");
        void* out = nullptr;
        unsigned long size = 0;
        (record.*(dotype == 4 ? &DORecord::SerializeBloomFilterDO : &DORecord::Serialize))(&out, &size, true);
        EXPECT_TRUE(Bytes(static_cast<char*>(out), static_cast<char*>(out) + size) == form) << +dotype;
        std::free(out);
    }
}

} // namespace
