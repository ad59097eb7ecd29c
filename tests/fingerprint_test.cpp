// Fingerprints against published and independently computed digests, their text, and the digest object.

#include <crrecord/fingerprint.h>
#include <crrecord/status.h>

#include <gtest/gtest.h>

#include <cstring>

namespace {

// Marks the last status: a failure must set it, a success must leave it.
constexpr cr_status_t kUntouched = static_cast<cr_status_t>(-99);
cr_status_t TakeStatus() {
    return std::exchange(*__cr_errno_location(), kUntouched);
}

constexpr unsigned int DigitsOf(unsigned int fptype) {
    return fptype == 3 ? 64 : 32;
}

std::string BytesOf(crfp_digest_t const& digest) {
    return std::string(digest.bytes, digest.bytes + 32);
}

crfp_digest_t Filled() {
    crfp_digest_t digest;
    std::memset(&digest, '#', sizeof digest);
    return digest;
}

struct Vector {
    std::string content;
    bool object;
    std::string md5, sha1, sha256;
};
// An object's digests are those that `openssl dgst` prints for the content followed by "DO" and a NUL.
Vector const kVectors[] = {
    {"", false, "d41d8cd98f00b204e9800998ecf8427e", "da39a3ee5e6b4b0d3255bfef95601890",
     "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
    {"abc", false, "900150983cd24fb0d6963f7d28e17f72", "a9993e364706816aba3e25717850c26c9cd0d89d",
     "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
    {std::string(1'000'000, 'a'), false, "7707d6ae4e027c70eea2a935c2296f21", "34aa973cd4c4daa4f61eeb2bdbad27316534016f",
     "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
    {"abc", true, "a99db864e0275bc0b6eafaa7c1dddc15", "b31239e328d9161eaec7b25dacb1a040fb3185d9",
     "bd872d0d78057a381b47d5870aaa7274d8b310f237ab98f8345289954e15835f"}};

// One context for all; pieces of 0, 1, 2 and more bytes.
TEST(Fingerprint, MatchesVectorsFedInPieces) {
    crfp_context_t context;
    TakeStatus();
    for (auto const& [content, object, md5, sha1, sha256] : kVectors) {
        for (unsigned int fptype = 0; fptype < 4; ++fptype) {
            EXPECT_EQ(CRFPInitialize(&context, fptype), 0);
            for (std::size_t at = 0, piece = 0; at < content.size(); at += piece++) {
                EXPECT_EQ(CRFPAppend(&context, content.data() + at, std::min(piece, content.size() - at)), 0);
            }
            EXPECT_EQ(CRFPAppend(&context, nullptr, 0), 0);
            EXPECT_EQ(object ? CRFPFinalizeDO(&context) : CRFPFinalize(&context), 0);
            crfp_digest_t digest = Filled();
            char text[65];
            EXPECT_EQ(CRFPGetDigest_r(&context, &digest), &digest);
            EXPECT_EQ(CRFPDigestToString_r(&digest, fptype, text, DigitsOf(fptype) + 1), text);
            EXPECT_EQ(text, (fptype == 0 ? md5 : fptype == 1 ? sha1 : sha256).substr(0, DigitsOf(fptype)));
            EXPECT_EQ(BytesOf(digest).ends_with(std::string(16, '\0')), fptype != 3);
        }
    }
    EXPECT_EQ(TakeStatus(), kUntouched);
}

// i, a, f, d, g: initialise, append, finalise content, finalise object, get; in capitals: rejected in this state. U:
// initialise with an unknown type, which ends a started digest.
TEST(Fingerprint, RejectsCallsOutOfOrder) {
    for (std::string const steps : {"AFDGiG", "ifFDAgg", "idFDAgg", "iaGfgiGaf", "iiaafg", "iaUAFDG", "ifUGiaf"}) {
        crfp_context_t context;
        crfp_digest_t digest;
        TakeStatus();
        for (char const step : steps) {
            bool failed = false;
            switch (std::tolower(step)) {
            case 'u': failed = CRFPInitialize(&context, 4) == -1; break;
            case 'i': failed = CRFPInitialize(&context, CR_FP_TYPE_SHA256) == -1; break;
            case 'a': failed = CRFPAppend(&context, "x", 1) == -1; break;
            case 'f': failed = CRFPFinalize(&context) == -1; break;
            case 'd': failed = CRFPFinalizeDO(&context) == -1; break;
            case 'g': failed = !CRFPGetDigest_r(&context, &digest); break;
            }
            EXPECT_EQ(failed, std::isupper(step) != 0) << steps << " at " << step;
            cr_status_t const refusal = step == 'U' ? CR_STATUS_INVALID_FP_TYPE : CR_STATUS_INVALID;
            EXPECT_EQ(TakeStatus(), failed ? refusal : kUntouched) << steps << " at " << step;
        }
    }
}

TEST(Fingerprint, RejectsNullPointers) {
    crfp_context_t open, done;
    crfp_digest_t digest{};
    char text[65];
    CRFPInitialize(&open, 0);
    CRFPInitialize(&done, 0);
    CRFPFinalize(&done);
    EXPECT_EQ(std::tuple(CRFPInitialize(nullptr, 0), CRFPAppend(nullptr, "x", 1), CRFPAppend(&open, nullptr, 1),
                         CRFPFinalize(nullptr), CRFPFinalizeDO(nullptr)),
              std::tuple(-1, -1, -1, -1, -1));
    EXPECT_EQ(std::tuple(CRFPGetDigest_r(nullptr, &digest), CRFPGetDigest_r(&done, nullptr),
                         CRFPDigestToString_r(nullptr, 0, text, 65), CRFPDigestToString_r(&digest, 0, nullptr, 65),
                         CRFPStringToDigest_r(nullptr, 0, &digest), CRFPStringToDigest_r("", 0, nullptr)),
              std::tuple(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr));
    TakeStatus();
    EXPECT_EQ(CRTDigestNewFull(1, nullptr, 0), nullptr);
    EXPECT_EQ(TakeStatus(), CR_STATUS_INVALID);
}

TEST(Fingerprint, RejectsUnknownTypes) {
    for (unsigned int const fptype : {0u, 3u, 4u, 256u, 259u, 0xffffffffu}) {
        crfp_context_t context; // never finalised
        TakeStatus();
        EXPECT_EQ(CRFPTypeIsValid(fptype) != 0, fptype < 4) << fptype;
        EXPECT_EQ(CRFPInitialize(&context, fptype), fptype < 4 ? 0 : -1) << fptype;
        EXPECT_EQ(TakeStatus(), fptype < 4 ? kUntouched : CR_STATUS_INVALID_FP_TYPE) << fptype;
    }
}

// An unknown type is 16 bytes wide.
TEST(FingerprintText, ChecksBufferSizeAndDigits) {
    for (unsigned int const fptype : {0u, 3u, 259u}) {
        std::string const zeros(DigitsOf(fptype), '0');
        for (unsigned int length = 0; length < 70; ++length) {
            crfp_digest_t digest{};
            std::string written(70, '#');
            bool const fits = length > DigitsOf(fptype), good = length == DigitsOf(fptype);
            TakeStatus();
            EXPECT_EQ(CRFPDigestToString_r(&digest, fptype, written.data(), length) != nullptr, fits);
            EXPECT_EQ(TakeStatus(), fits ? kUntouched : CR_STATUS_INVALID);
            EXPECT_EQ(written, fits ? zeros + '\0' + written.substr(zeros.size() + 1) : std::string(70, '#')) << length;

            std::vector<char> text(length + 1, '0'); // of this size exactly: nothing after it may be read
            text.back() = '\0';
            digest = Filled();
            EXPECT_EQ(CRFPStringToDigest_r(text.data(), fptype, &digest) != nullptr, good) << length;
            EXPECT_EQ(TakeStatus(), good ? kUntouched : CR_STATUS_INVALID);
            EXPECT_EQ(BytesOf(digest), good ? std::string(32, '\0') : BytesOf(Filled())) << length;
        }
        for (char const other : {'/', ':', '@', 'A', '`', 'g', '\xb0'}) {
            std::string text = zeros;
            text.back() = other;
            crfp_digest_t digest = Filled();
            EXPECT_EQ(CRFPStringToDigest_r(text.c_str(), fptype, &digest), nullptr) << other;
            EXPECT_EQ(std::tuple(TakeStatus(), BytesOf(digest)), std::tuple(CR_STATUS_INVALID, BytesOf(Filled())));
        }
    }
}

TEST(DigestObject, KeepsItsArguments) {
    crfp_digest_t const digest = Filled();
    crt_digest_t* made = CRTDigestNewFull(4, &digest, 0xfedcba9876543210);
    EXPECT_EQ(std::tuple(made->kind, made->dcid, BytesOf(made->digest)),
              std::tuple(4, 0xfedcba9876543210, BytesOf(digest)));
    CRTDigestDelete(&made);
    EXPECT_EQ(made, nullptr);
    CRTDigestDelete(&made);
    CRTDigestDelete(nullptr);
}

} // namespace
