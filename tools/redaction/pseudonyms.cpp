#include "redaction/pseudonyms.h"

#include "io/failure.h"

#include <crrecord/container.h>

#include "base/byteorder.h"

#include <algorithm>
#include <limits>

#include <openssl/core_names.h>
#include <openssl/params.h>
#include <sys/random.h>

namespace crrecord::tool {

namespace {

void Check(bool done) {
    if (!done) {
        throw Failure("HMAC-SHA-256 is not available");
    }
}

} // namespace

Pseudonyms::Pseudonyms(std::span<unsigned char const> secret) : recent_(kRecent) {
    std::unique_ptr<EVP_MAC, decltype(&EVP_MAC_free)> const hmac(EVP_MAC_fetch(nullptr, OSSL_MAC_NAME_HMAC, nullptr),
                                                                 &EVP_MAC_free);
    Check(hmac != nullptr);
    hmac_.reset(EVP_MAC_CTX_new(hmac.get()));
    char digest[] = "SHA256";
    OSSL_PARAM const parameters[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                                     OSSL_PARAM_construct_end()};
    Check(hmac_ && EVP_MAC_init(hmac_.get(), secret.data(), secret.size(), parameters) == 1);
}

Pseudonyms::Hash Pseudonyms::RandomSecret() {
    Hash secret;
    // A request for so few bytes is never interrupted by a signal.
    if (::getrandom(secret.data(), secret.size(), 0) != static_cast<ssize_t>(secret.size())) {
        throw Failure(ErrnoText("random bytes", "read"));
    }
    return secret;
}

Pseudonyms::Hash Pseudonyms::Hmac(unsigned char domain, std::span<unsigned char const> bytes) {
    Hash value;
    std::size_t size = 0;
    // EVP_MAC_init without a key restarts with the same key.
    Check(EVP_MAC_init(hmac_.get(), nullptr, 0, nullptr) == 1 && EVP_MAC_update(hmac_.get(), &domain, 1) == 1 &&
          EVP_MAC_update(hmac_.get(), bytes.data(), bytes.size()) == 1 &&
          EVP_MAC_final(hmac_.get(), value.data(), &size, value.size()) == 1 && size == value.size());
    return value;
}

void Pseudonyms::Fingerprint(unsigned char* bytes, unsigned int width) {
    std::copy_n(Hmac(kFingerprint, {bytes, width}).begin(), width, bytes);
}

std::uint64_t Pseudonyms::Container(std::uint64_t id) {
    return Id(kContainer, id, CR_FIRST_FREE_DCID);
}

std::uint64_t Pseudonyms::Path(std::uint64_t id) {
    return Id(kPath, id, 1);
}

std::uint64_t Pseudonyms::File(std::uint64_t id) {
    return Id(kFile, id, 1);
}

std::uint64_t Pseudonyms::Reference(cr_reftype_t kind, std::uint64_t id) {
    return Id(static_cast<unsigned char>(kReference + static_cast<int>(kind)), id, 0);
}

std::uint32_t Pseudonyms::Checksum(std::uint32_t crc) {
    return static_cast<std::uint32_t>(Id(kChecksum, crc, 1));
}

void Pseudonyms::Bitmap(std::span<unsigned char> bitmap) {
    Hash const seed = Hmac(kBitmap, bitmap);
    std::array<unsigned char, seed.size() + sizeof(std::uint64_t)> message{};
    std::copy(seed.begin(), seed.end(), message.begin());
    for (std::uint64_t block = 0; !bitmap.empty(); ++block) {
        Store(message.data() + seed.size(), block, Order::Network);
        Hash const bytes = Hmac(kBitmapBlock, message);
        std::size_t const count = std::min(bitmap.size(), bytes.size());
        std::copy_n(bytes.begin(), count, bitmap.begin());
        bitmap = bitmap.subspan(count);
    }
}

std::uint64_t Pseudonyms::Id(unsigned char domain, std::uint64_t id, std::uint64_t least) {
    if (id < least) {
        return id;
    }
    Known& known = recent_[((id + domain) * 0x9e3779b97f4a7c15) >> (64 - kRecentBits)];
    if (known.domain != domain || known.id != id) {
        known = {domain, id, Permuted(domain, id, least)};
    }
    return known.pseudonym;
}

// Repeats the permutation until the result is an id of the same width again ("cycle walking": Black and Rogaway,
// Ciphers with Arbitrary Finite Domains, 2002), which is itself a permutation of these ids. Nearly all numbers of
// either width are ids, so a second step is rare.
std::uint64_t Pseudonyms::Permuted(unsigned char domain, std::uint64_t id, std::uint64_t least) {
    constexpr std::uint64_t kMost32 = std::numeric_limits<std::uint32_t>::max();
    bool const wide = id > kMost32;
    do {
        id = Feistel(domain, id, wide ? 32 : 16);
    } while (id < (wide ? kMost32 + 1 : least));
    return id;
}

// A keyed permutation of the numbers of 2 * halfBits bits: a balanced Feistel network of ten rounds, as in FF1 of
// NIST SP 800-38G, with HMAC-SHA-256 as the round function. Four rounds are enough for 64 bits (Luby and Rackoff,
// 1988), but not for 32 bits.
std::uint64_t Pseudonyms::Feistel(unsigned char domain, std::uint64_t value, unsigned int halfBits) {
    constexpr unsigned char kRounds = 10;
    std::uint64_t const mask = (std::uint64_t{1} << halfBits) - 1;
    std::uint64_t left = value >> halfBits;
    std::uint64_t right = value & mask;
    for (unsigned char round = 0; round < kRounds; ++round) {
        std::array<unsigned char, 2 + sizeof right> message{static_cast<unsigned char>(halfBits), round};
        Store(message.data() + 2, right, Order::Network);
        std::uint64_t const mixed = Load<std::uint64_t>(Hmac(domain, message).data(), Order::Network);
        left = std::exchange(right, left ^ (mixed & mask));
    }
    return left << halfBits | right;
}

} // namespace crrecord::tool
