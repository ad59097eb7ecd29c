#include <crrecord/probe.h>

#include "support/record_bytes.h"

#include <gtest/gtest.h>

namespace {

TEST(Probe, ReadsKindOrderAndSizesFromTheHead) {
    RecordValues values = Example(3, 1);
    values.references = {{2, 17}};
    for (bool const network : {false, true}) {
        Bytes const object = Spell(values, network).bytes;
        Bytes const segment = Golden({network});
        for (auto const& [bytes, kind, head] :
             {std::tuple(object, CR_RECORD_DO, 80U), std::tuple(segment, CR_RECORD_SEGMENT, 96U)}) {
            for (std::size_t available = 0; available <= bytes.size(); ++available) {
                Bytes const part(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(available));
                cr_record_probe_t const probe = CRRecordProbe(part.data(), part.size());
                std::size_t const size = available < head ? 0 : bytes.size();
                bool const known = available >= 2;
                EXPECT_EQ(std::tuple(probe.kind, probe.head_size, probe.recorded_size, probe.counted_size,
                                     probe.network_order != 0),
                          std::tuple(known ? kind : CR_RECORD_UNKNOWN, known ? head : 0, size, size,
                                     known && (network || kBig)));
            }
        }
    }
}

TEST(Probe, ReturnsSizesAsClaimed) {
    Bytes bytes(80, 0xff);
    EXPECT_EQ(CRRecordProbe(bytes.data(), bytes.size()).kind, CR_RECORD_UNKNOWN);
    bytes[0] = 0;
    bytes[1] = 3;
    bytes[0x4c] = 3; // fingerprint type
    bytes[0x4d] = 3; // DO type
    cr_record_probe_t const probe = CRRecordProbe(bytes.data(), bytes.size());
    unsigned long const most = 0xffffffff;
    EXPECT_EQ(probe.recorded_size, most);
    // Entries with DCIDs, unique list, legacy arrays, references: more than 32 bits hold.
    EXPECT_EQ(probe.counted_size, 80 + 52 * most + 8 + 16 * most + 8 * most + 4 * most + most + 24);
}

} // namespace
