// Content-defined cutting. The sizes come from a program that hashes one byte a step.

#include "record/content_cut.h"
#include "support/segment_bytes.h"

#include <crrecord/fingerprint.h>

#include <gtest/gtest.h>

#include <set>
#include <string_view>
#include <vector>

namespace {

using crrecord::tool::ContentCut;

// The SHA-256 of 0, 1, 2 and so on, as 32-bit little-endian numbers.
Bytes RandomBytes(std::uint32_t digests) {
    Bytes bytes;
    for (std::uint32_t i = 0; i < digests; ++i) {
        unsigned char const number[] = {static_cast<unsigned char>(i), static_cast<unsigned char>(i >> 8),
                                        static_cast<unsigned char>(i >> 16), static_cast<unsigned char>(i >> 24)};
        crfp_context_t context;
        crfp_digest_t digest;
        CRFPInitialize(&context, CR_FP_TYPE_SHA256);
        CRFPAppend(&context, number, sizeof number);
        CRFPFinalize(&context);
        CRFPGetDigest_r(&context, &digest);
        bytes.insert(bytes.end(), digest.bytes, digest.bytes + sizeof digest);
    }
    return bytes;
}

std::vector<std::string_view> Cut(Bytes const& bytes, ContentCut const& cut) {
    std::vector<std::string_view> segments;
    for (std::size_t at = 0; at < bytes.size(); at += segments.back().size()) {
        segments.emplace_back(reinterpret_cast<char const*>(&bytes[at]),
                              FirstContentCut(&bytes[at], bytes.size() - at, cut));
    }
    return segments;
}

std::vector<std::size_t> SizesOf(std::vector<std::string_view> const& segments) {
    std::vector<std::size_t> sizes;
    for (std::string_view const segment : segments) {
        sizes.push_back(segment.size());
    }
    return sizes;
}

// Records share segments only if every version cuts alike.
TEST(ContentCut, CutsWhereItAlwaysDid) {
    EXPECT_EQ(SizesOf(Cut(RandomBytes(32768), {})),
              (std::vector<std::size_t>{66964, 67112, 90375, 66113, 112997, 56637, 78690, 24493, 62711, 77915, 89780,
                                        37290, 67021, 75222, 55774, 19482}));
    Bytes bytes = RandomBytes(938);
    bytes.resize(30000);
    std::vector<std::size_t> const small = SizesOf(Cut(bytes, {64, 256, 1000}));
    EXPECT_EQ(small.size(), 99u);
    EXPECT_EQ((std::vector<std::size_t>(small.begin(), small.begin() + 10)),
              (std::vector<std::size_t>{323, 292, 270, 293, 258, 258, 271, 339, 521, 292}));
    EXPECT_EQ(SizesOf(Cut(Bytes(1000), {64, 128, 300})), (std::vector<std::size_t>{300, 300, 300, 100}));
}

TEST(ContentCut, SharesWhatFollowsAnInsertion) {
    Bytes const before = RandomBytes(65536);
    Bytes after = before;
    after.insert(after.begin(), 7);
    std::vector<std::string_view> const segments = Cut(before, {});
    std::set<std::string_view> const known(segments.begin(), segments.end());
    std::size_t shared = 0;
    for (std::string_view const segment : Cut(after, {})) {
        shared += known.count(segment) * segment.size();
    }
    EXPECT_GT(shared, before.size() * 95 / 100);
}

} // namespace
