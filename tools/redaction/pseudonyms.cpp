#define OPENSSL_SUPPRESS_DEPRECATED
#include "redaction/pseudonyms.h"

#include "io/failure.h"

#include <crrecord/container.h>

#include "base/byteorder.h"

#include <algorithm>
#include <limits>

#include <sys/random.h>

namespace crrecord::tool {

namespace {

void HashKeyBlock(SHA256_CTX& context, std::array<unsigned char, SHA256_CBLOCK> block, unsigned char pad) {
    for (unsigned char& byte : block) {
        byte ^= pad;
    }
    SHA256_Init(&context);
    SHA256_Update(&context, block.data(), block.size());
}

} // namespace

Pseudonyms::Pseudonyms(std::span<unsigned char const> secret)
    : recent_(kRecent), shared_(std::make_shared<decltype(shared_)::element_type>()) {
    constexpr unsigned char kInnerPad = 0x36, kOuterPad = 0x5c;
    std::array<unsigned char, SHA256_CBLOCK> block{};
    if (secret.size() > block.size()) {
        SHA256(secret.data(), secret.size(), block.data());
    } else {
        std::copy(secret.begin(), secret.end(), block.begin());
    }
    HashKeyBlock(inner_, block, kInnerPad);
    HashKeyBlock(outer_, block, kOuterPad);
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
    SHA256_CTX context = inner_;
    SHA256_Update(&context, &domain, 1);
    SHA256_Update(&context, bytes.data(), bytes.size());
    SHA256_Final(value.data(), &context);
    context = outer_;
    SHA256_Update(&context, value.data(), value.size());
    SHA256_Final(value.data(), &context);
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
    if (domain == kChecksum) {
        return Permuted(domain, id, least); // they hardly repeat, and would replace the ids in the cache
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
        id = Feistel(domain, id, wide ? 32 : kShortHalf);
    } while (id < (wide ? kMost32 + 1 : least));
    return id;
}

// A keyed permutation of the numbers of 2 * halfBits bits: a balanced Feistel network of ten rounds, as in FF1 of
// NIST SP 800-38G, with HMAC-SHA-256 as the round function. Four rounds are enough for 64 bits (Luby and Rackoff,
// 1988), but not for 32 bits.
std::uint64_t Pseudonyms::Feistel(unsigned char domain, std::uint64_t value, unsigned int halfBits) {
    std::uint64_t const mask = (std::uint64_t{1} << halfBits) - 1;
    std::uint64_t left = value >> halfBits;
    std::uint64_t right = value & mask;
    for (unsigned char round = 0; round < kRounds; ++round) {
        std::uint64_t const mixed =
            halfBits == kShortHalf ? ShortRound(domain, round, right) : Round(domain, halfBits, round, right);
        left = std::exchange(right, left ^ (mixed & mask));
    }
    return left << halfBits | right;
}

std::uint64_t Pseudonyms::Round(unsigned char domain, unsigned int halfBits, unsigned char round, std::uint64_t right) {
    std::array<unsigned char, 2 + sizeof right> message{static_cast<unsigned char>(halfBits), round};
    Store(message.data() + 2, right, Order::Network);
    return Load<std::uint64_t>(Hmac(domain, message).data(), Order::Network);
}

std::uint64_t Pseudonyms::ShortRound(unsigned char domain, unsigned char round, std::uint64_t right) {
    std::atomic<std::uint16_t>*& results = shortRounds_.at(domain);
    if (!results) {
        ShortRounds& rounds = shared_->at(domain);
        std::call_once(rounds.made, [&rounds] {
            rounds.results = std::make_unique<std::atomic<std::uint16_t>[]>(std::size_t{kRounds} << kShortHalf);
        });
        results = rounds.results.get();
    }
    std::atomic<std::uint16_t>& stored = results[std::size_t{round} << kShortHalf | right];
    std::uint16_t result = stored.load(std::memory_order_relaxed);
    if (result == 0) {
        result = static_cast<std::uint16_t>(Round(domain, kShortHalf, round, right));
        stored.store(result, std::memory_order_relaxed);
    }
    return result;
}

} // namespace crrecord::tool
