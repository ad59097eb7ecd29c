// Compares checksums, hexadecimal digits and references with plain implementations.

#include "target.h"

#include "base/adler32.h"
#include "base/hex.h"

#include <crrecord/fingerprint.h>
#include <crrecord/tref.h>

#include <cstring>
#include <string>

namespace {

using fuzz::Must;

// Adler-32 of RFC 1950, by its definition.
std::uint32_t PlainAdler32(fuzz::Bytes bytes) {
    std::uint32_t a = 1, b = 0;
    for (unsigned char const byte : bytes) {
        a = (a + byte) % 65521;
        b = (b + a) % 65521;
    }
    return b << 16 | a;
}

void CompareChecksums(fuzz::Bytes bytes, std::size_t cut) {
    std::uint32_t const sum = PlainAdler32(bytes);
    Must(crrecord::Adler32(bytes.data(), bytes.size()) == sum, "checksum");
    std::uint32_t const first = crrecord::Adler32(bytes.data(), cut);
    Must(crrecord::Adler32More(first, bytes.data() + cut, bytes.size() - cut) == sum, "checksum in two parts");
}

// Tests the bytes as a fingerprint and as the text of a fingerprint.
void CompareDigits(fuzz::Bytes bytes, unsigned int fptype) {
    unsigned int const width = CRFPDigestSize(fptype);
    crfp_digest_t digest{}, back{};
    std::copy_n(bytes.begin(), std::min<std::size_t>(bytes.size(), width), digest.bytes);
    char plain[65], text[65], given[65] = {};
    for (unsigned int i = 0; i < width; ++i) {
        std::snprintf(plain + 2 * i, 3, "%02x", digest.bytes[i]);
    }
    Must(CRFPDigestToString_r(&digest, fptype, text, CRFPTextSize(fptype)) && std::strcmp(text, plain) == 0, "digits");
    Must(CRFPStringToDigest_r(text, fptype, &back) && std::memcmp(&back, &digest, sizeof back) == 0, "digits back");
    char portable[64] = {};
    for (unsigned int i = 0; i < width; i += 16) {
        crrecord::portable::Encode16(digest.bytes + i, portable + 2 * i);
    }
    Must(std::memcmp(portable, plain, 2 * width) == 0, "digits by the portable code");

    std::copy_n(bytes.begin(), std::min<std::size_t>(bytes.size(), 2 * width), given);
    bool const good = std::strspn(given, "0123456789abcdef") == 2 * width;
    Must((CRFPStringToDigest_r(given, fptype, &back) != nullptr) == good, "valid texts");
    unsigned char decoded[16];
    bool const goodHalf = std::strspn(given, "0123456789abcdef") >= 32;
    Must(crrecord::portable::Decode16(given, decoded) == goodHalf, "valid texts by the portable code");
}

void CompareReferences(unsigned int kind, unsigned long id) {
    _cr_tref_t* reference = CRTRefNew(static_cast<cr_reftype_t>(kind), id);
    Must((reference != nullptr) == (kind < CR_REFTYPE_END && (kind != CR_REFTYPE_DSID || id >> 32 == 0)), "references");
    if (reference) {
        std::string const name = kind == CR_REFTYPE_TASKID ? "task"
                                 : kind == CR_REFTYPE_DSID ? "dsid"
                                                           : "ref" + std::to_string(kind);
        char text[CR_TREF_TEXT_SIZE];
        Must(CRTRefToString(text, sizeof text, reference) == name + ":" + std::to_string(id), "text of a reference");
        CRTRefDelete(&reference);
    }
}

} // namespace

FUZZ_TARGET(conversions, bytes) {
    unsigned char const choice = fuzz::TakeByte(bytes);
    CompareChecksums(bytes, std::min<std::size_t>(choice, bytes.size()));
    CompareDigits(bytes, choice & 3u);
    CompareReferences(choice >> 4, fuzz::TakeNumber(bytes, 1 + choice % 8));
}
