// All forms of the hexadecimal conversion write and read each byte, and reject what is no digit.

#include "base/hex.h"
#include "support/exchange/segment_codec.h"

#include <gtest/gtest.h>

namespace {

constexpr char kDigits[] = "0123456789abcdef";

TEST(Hex, ConvertsEveryByteAtEveryPosition) {
    for (int first = 0; first < 256; ++first) {
        std::string expected;
        unsigned char bytes[32];
        for (int i = 0; i < 32; ++i) {
            int const value = (first + i) % 256;
            bytes[i] = static_cast<unsigned char>(value);
            expected += {kDigits[value / 16], kDigits[value % 16]};
        }
        std::string text(64, '?');
        for (auto* const encode : {crrecord::portable::Encode16, crrecord::hex::Encode16}) {
            encode(bytes, text.data());
            EXPECT_EQ(text.substr(0, 32), expected.substr(0, 32));
        }
        for (auto* const decode : {crrecord::portable::Decode16, crrecord::hex::Decode16}) {
            unsigned char read[16];
            EXPECT_TRUE(decode(expected.data(), read));
            EXPECT_TRUE(std::equal(read, read + 16, bytes)) << first;
        }
        expected.push_back('\0');
        for (auto const codec : {crrecord::BaseSegmentCodec(3, 0), &crrecord::SegmentCodecFor(3, 0)}) {
            std::string form(65, '?');
            codec->encode(reinterpret_cast<unsigned char*>(form.data()), bytes, 1);
            EXPECT_EQ(form, expected);
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
            for (auto* const decode : {crrecord::portable::Decode16, crrecord::hex::Decode16}) {
                ASSERT_EQ(decode(text.data() + at / 32 * 32, bytes), digit) << value << " at " << at;
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
