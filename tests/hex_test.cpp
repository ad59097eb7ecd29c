// Both forms of the hexadecimal conversion against a slow oracle.

#include "base/hex.h"
#include "support/exchange/segment_codec.h"

#include <gtest/gtest.h>

#include <random>

namespace {

constexpr char kDigits[] = "0123456789abcdef";

struct Form {
    void (*encode)(unsigned char const*, char*);
    bool (*decode)(char const*, unsigned char*);
};
constexpr Form kForms[] = {{crrecord::portable::Encode16, crrecord::portable::Decode16},
                           {crrecord::hex::Encode16, crrecord::hex::Decode16}};

TEST(Hex, MatchesOracleAtEveryAlignment) {
    std::mt19937 random(1);
    for (std::size_t round = 0; round < 4096; ++round) {
        std::size_t const at = round % 16;
        unsigned char bytes[34] = {}, back[34] = {};
        std::string expected(at, '#');
        for (std::size_t i = at + 1; i <= at + 16; ++i) {
            bytes[i] = static_cast<unsigned char>(random());
            expected += {kDigits[bytes[i] / 16], kDigits[bytes[i] % 16]};
        }
        for (Form const& form : kForms) {
            std::string text(at + 33, '#');
            form.encode(bytes + at + 1, text.data() + at);
            ASSERT_EQ(text, expected + "#");
            ASSERT_TRUE(form.decode(text.data() + at, back + at + 1));
            ASSERT_EQ(std::memcmp(back, bytes, sizeof bytes), 0);
        }
    }
}

TEST(Hex, RejectsOtherCharactersAtEveryPosition) {
    for (std::size_t at = 0; at < 64; ++at) {
        for (int value = 0; value < 256; ++value) {
            std::string text(64, '7');
            text[at] = static_cast<char>(value);
            bool const digit = value != 0 && std::strchr(kDigits, value) != nullptr;
            unsigned char bytes[32];
            for (Form const& form : kForms) {
                ASSERT_EQ(form.decode(text.data() + at / 32 * 32, bytes), digit) << value << " at " << at;
            }
            ASSERT_EQ(crrecord::HexDecode(text.data(), 32, bytes), digit) << value << " at " << at;
            // The codecs of whole segments, of which this is one of DO type 0.
            auto const* const segment = reinterpret_cast<unsigned char const*>(text.c_str());
            for (auto const codec : {crrecord::BaseSegmentCodec(3, 0), &crrecord::SegmentCodecFor(3, 0)}) {
                ASSERT_EQ(codec->check(segment, 1), digit) << value << " at " << at;
                ASSERT_EQ(codec->decode(bytes, segment, 1), digit) << value << " at " << at;
            }
        }
    }
}

} // namespace
