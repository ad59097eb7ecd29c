// Checksums, fingerprints and digests.

#include "sides.h"

#include "base/adler32.h"

#include <benchmark/benchmark.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <zlib.h>

namespace bench {

namespace {

struct Texts {
    explicit Texts(Input const& input) : fptype(input.shape.fptype), count(input.Count()), text(CRFPTextSize(fptype)) {
        digests.resize(count);
        texts.resize(std::size_t{count} * text);
        for (unsigned int i = 0; i < count; ++i) {
            std::memcpy(digests[i].bytes, &input.entries[std::size_t{i} * input.stride], input.fingerprintSize);
            Require(CRFPDigestToString_r(&digests[i], fptype, &texts[std::size_t{i} * text], text) != nullptr,
                    "no text");
        }
    }
    unsigned int fptype;
    unsigned int count;
    unsigned int text; // bytes of one text, with its NUL
    std::vector<crfp_digest_t> digests;
    std::vector<char> texts;
};

// The crypto library's conversions. Their texts are upper-case.
Side OpenSslToText(std::shared_ptr<Texts const> const& from) {
    auto const to = std::make_shared<std::vector<char>>(from->texts.size());
    return {[from, to] {
        char* text = to->data();
        for (crfp_digest_t const& digest : from->digests) {
            std::size_t length = 0;
            Require(OPENSSL_buf2hexstr_ex(text, from->text, &length, digest.bytes, from->text / 2, '\0') == 1,
                    "no text");
            text += from->text;
        }
        benchmark::ClobberMemory();
    }};
}

Side OpenSslFromText(std::shared_ptr<Texts const> const& from) {
    auto const to = std::make_shared<std::vector<crfp_digest_t>>(from->count);
    return {[from, to] {
        char const* text = from->texts.data();
        for (crfp_digest_t& digest : *to) {
            std::size_t length = 0;
            Require(OPENSSL_hexstr2buf_ex(digest.bytes, sizeof digest.bytes, &length, text, '\0') == 1,
                    "no fingerprint");
            text += from->text;
        }
        benchmark::ClobberMemory();
    }};
}

Side ToText(std::shared_ptr<Texts const> const& from) {
    auto const to = std::make_shared<std::vector<char>>(from->texts.size());
    return {[from, to] {
        char* text = to->data();
        for (crfp_digest_t const& digest : from->digests) {
            Require(CRFPDigestToString_r(&digest, from->fptype, text, from->text) != nullptr, "no text");
            text += from->text;
        }
        benchmark::ClobberMemory();
    }};
}

Side FromText(std::shared_ptr<Texts const> const& from) {
    auto const to = std::make_shared<std::vector<crfp_digest_t>>(from->count);
    return {[from, to] {
        char const* text = from->texts.data();
        for (crfp_digest_t& digest : *to) {
            Require(CRFPStringToDigest_r(text, from->fptype, &digest) != nullptr, "no fingerprint");
            text += from->text;
        }
        benchmark::ClobberMemory();
    }};
}

std::shared_ptr<std::vector<unsigned char>> SharedForm(Shape shape, unsigned int n) {
    return std::make_shared<std::vector<unsigned char>>(FormOf(*Input(shape, n).MakeRecord(), false));
}

template <class Sum>
Side Checksum(std::shared_ptr<std::vector<unsigned char>> const& bytes, Sum sum) {
    return {[bytes, sum] { benchmark::DoNotOptimize(sum(bytes->data(), bytes->size())); }};
}

unsigned int OurSum(unsigned char const* bytes, std::size_t size) {
    return crrecord::Adler32(bytes, size);
}

} // namespace

Comparison Adler32(Shape shape, unsigned int n) {
    auto const bytes = SharedForm(shape, n);
    return {Checksum(bytes, OurSum), Checksum(bytes, [](unsigned char const* from, std::size_t size) {
                return libdeflate_adler32(1, from, size);
            })};
}

Comparison Adler32Zlib(Shape shape, unsigned int n) {
    auto const bytes = SharedForm(shape, n);
    return {Checksum(bytes, OurSum),
            Checksum(bytes, [](unsigned char const* from, std::size_t size) { return adler32_z(1, from, size); })};
}

Comparison FingerprintToText(Shape shape, unsigned int n) {
    auto const from = std::make_shared<Texts const>(Input(shape, n));
    return {ToText(from), OpenSslToText(from)};
}

Comparison FingerprintFromText(Shape shape, unsigned int n) {
    auto const from = std::make_shared<Texts const>(Input(shape, n));
    return {FromText(from), OpenSslFromText(from)};
}

// The reference hashes prepared bytes, the same that the digest covers.
Comparison Digest(Shape shape, unsigned int n) {
    Input const input(shape, n);
    std::shared_ptr<DORecord> const record = input.MakeRecord();
    static constexpr std::size_t kFormHead = 28, kDcid = 8;
    auto const bytes = std::make_shared<std::vector<unsigned char>>(FormOf(*record, false));
    bytes->erase(bytes->begin(), bytes->begin() + kFormHead);
    bytes->resize(bytes->size() - std::size_t{n} * kDcid - 1); // the separator
    bytes->insert(bytes->end(), {'D', 'O', '\0'});
    char const* const algorithm = shape.fptype == CR_FP_TYPE_MD5 ? "MD5" : "SHA256";
    std::shared_ptr<EVP_MD> const hash(EVP_MD_fetch(nullptr, algorithm, nullptr), EVP_MD_free);
    unsigned char expected[EVP_MAX_MD_SIZE];
    Require(hash && EVP_Digest(bytes->data(), bytes->size(), expected, nullptr, hash.get(), nullptr) == 1, "no hash");
    crt_digest_t* digest = record->GetDigest();
    Require(digest && std::memcmp(digest->digest.bytes, expected, input.fingerprintSize) == 0, "another digest");
    CRTDigestDelete(&digest);
    return {{[record] {
                crt_digest_t* made = record->GetDigest();
                Require(made != nullptr, "no digest");
                benchmark::DoNotOptimize(made);
                CRTDigestDelete(&made);
            }},
            {[bytes, hash] {
                unsigned char made[EVP_MAX_MD_SIZE];
                Require(EVP_Digest(bytes->data(), bytes->size(), made, nullptr, hash.get(), nullptr) == 1, "no hash");
                benchmark::DoNotOptimize(made);
            }}};
}

} // namespace bench
