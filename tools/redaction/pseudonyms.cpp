#include "redaction/pseudonyms.h"

#include <crrecord/container.h>

#include "base/byteorder.h"

#include <algorithm>
#include <limits>

namespace crrecord::tool {

void Pseudonyms::Fingerprint(unsigned char* bytes, unsigned int width) {
    std::copy_n(hash_(kFingerprint, {bytes, width}).begin(), width, bytes);
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
    KeyedHash::Value const seed = hash_(kBitmap, bitmap);
    std::array<unsigned char, seed.size() + sizeof(std::uint64_t)> message{};
    std::copy(seed.begin(), seed.end(), message.begin());
    for (std::uint64_t block = 0; !bitmap.empty(); ++block) {
        Store(message.data() + seed.size(), block, Order::Network);
        KeyedHash::Value const bytes = hash_(kBitmapBlock, message);
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

// Steps on until it is among the ids of the same width again ("cycle walking": Black and Rogaway, Ciphers with
// Arbitrary Finite Domains, 2002). A permutation leads back there at last, and the steps are a permutation too. Nearly
// all numbers of either width are ids, so that hardly ever a second step is needed.
std::uint64_t Pseudonyms::Permuted(unsigned char domain, std::uint64_t id, std::uint64_t least) {
    constexpr std::uint64_t kMost32 = std::numeric_limits<std::uint32_t>::max();
    bool const wide = id > kMost32;
    do {
        id = Feistel(domain, id, wide ? 32 : 16);
    } while (id < (wide ? kMost32 + 1 : least));
    return id;
}

// A keyed permutation of the numbers of 2 * halfBits bits: a balanced Feistel network of ten rounds, as FF1 of
// NIST SP 800-38G has them, with HMAC-SHA-256 as the round function. Four rounds would do for wide numbers (Luby and
// Rackoff, 1988), but not for those of 32 bits.
std::uint64_t Pseudonyms::Feistel(unsigned char domain, std::uint64_t value, unsigned int halfBits) {
    constexpr unsigned char kRounds = 10;
    std::uint64_t const mask = (std::uint64_t{1} << halfBits) - 1;
    std::uint64_t left = value >> halfBits;
    std::uint64_t right = value & mask;
    for (unsigned char round = 0; round < kRounds; ++round) {
        std::array<unsigned char, 2 + sizeof right> message{static_cast<unsigned char>(halfBits), round};
        Store(message.data() + 2, right, Order::Network);
        std::uint64_t const mixed = Load<std::uint64_t>(hash_(domain, message).data(), Order::Network);
        left = std::exchange(right, left ^ (mixed & mask));
    }
    return left << halfBits | right;
}

} // namespace crrecord::tool
