// Known faults of such readers: counts multiplied in 32 bits, memory allocated by a claimed count, findings that read
// the bytes again, and empty input.

#include "support/clock.h"
#include "support/fault.h"
#include "support/log_capture.h"
#include "support/record_memory.h"

#include <crrecord/DORecordView.h>

#include <gtest/gtest.h>

namespace {

// Multiplied in 32 bits, each of these counts gives the same sum as before: only bits of its highest byte are added.
// Nothing is allocated by the count, nor for the trace's message; without memory the bytes are rejected, too.
TEST(HostileBytes, RejectsWrappingCountsWithoutAllocation) {
    std::tuple<unsigned char, std::size_t, unsigned char> const rows[] = {
        {1, 0x38, 0x40}, {3, 0x38, 0xc0}, {3, 0x3c, 0x10}, {4, 0x3c, 0xf0},
        {0, 0x44, 0xff}, {4, 0x48, 0xff}, {2, 0x34, 0x20}, {5, 0x40, 0x40}};
    for (auto const& [dotype, offset, highest] : rows) {
        for (bool const network : {false, true}) {
            bool const big = kBig || (network && offset != 0x34 && offset != 0x40); // legacy counts are not swapped
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
                auto const call = [&make = take] { return fault::StatusOf(make); };
                auto const outcome = fault::Run(call, 0), without = fault::Run(call, 1, true);
                EXPECT_EQ(std::tuple(outcome.status, outcome.attempts, without.status),
                          std::tuple(CR_STATUS_CORRUPT_RECORD, allocations, CR_STATUS_CORRUPT_RECORD))
                    << offset;
            }
        }
    }
}

// The listener overwrites the buffer. The message quotes no text of the buffer, which may lack its end.
TEST(HostileBytes, FindingsCarryTheComparedValues) {
    std::pair<Bytes, std::string> context;
    auto& [bytes, seen] = context;
    auto const listen = [](cr_finding_t const* finding, void* to) {
        auto& [buffer, text] = *static_cast<std::pair<Bytes, std::string>*>(to);
        std::fill(buffer.begin(), buffer.end(), '\0');
        text = std::to_string(finding->found) + ": " + finding->message;
        return false;
    };
    bytes = Spell(Example(2, 1)).bytes;
    bytes[0x4d] = 0xfe;
    EXPECT_EQ(DORecordDiagnose(bytes.data(), bytes.size(), 0, listen, &context), 32);
    EXPECT_EQ(seen, "254: Invalid DO record: DO type 254, expected at most 5");
    bytes = SpellForm(Example(2, 1), false);
    std::fill(bytes.begin() + 28, bytes.end(), 'f');
    EXPECT_EQ(DORecordSerializedDiagnose(bytes.data(), bytes.size(), 2, 1, 0, listen, &context), 32);
    EXPECT_EQ(seen, "102: Invalid serialized DO: the fingerprint of segment 0 is not 32 lower-case digits and a NUL");
}

// Null pointers with counts of zero. Forms may be empty, the builders' arguments not.
TEST(HostileBytes, RejectsEmptyInput) {
    for (unsigned char dotype = 0; dotype < 6; ++dotype) {
        RecordValues const values{.dotype = dotype};
        EXPECT_EQ(Refusal([&] { Build(values); }),
                  dotype == 4 ? "9: Got empty bloom filter bitmap." : "9: Got empty SO list.");
        Bytes const form = SpellForm(values, true);
        OpenRecord record(dotype, 0, nullptr, 0, form.data(), form.size(), false);
        Bytes const before = Buffer(record);
        record.expand(0);
        record.AddSerializedTRefs(nullptr, 0);
        EXPECT_EQ(StoredBytes(record), before);
    }
}

} // namespace
