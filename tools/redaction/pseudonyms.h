// Pseudonyms for the values that identify data.
//
// Equal values have equal pseudonyms under the same secret. Without the secret a pseudonym reveals nothing else about
// its value, also to a search through all values. Memory: 1.3 MB for each kind of id with ids below 2^32, for all
// copies.
//
// Ids are encrypted with a cipher and not hashed: hashes of 32-bit ids would collide from some 77,000 ids on, which
// would merge containers and references, and remembering them would make pseudonyms depend on the order of the records.

#pragma once

#include <crrecord/tref.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include <openssl/sha.h>

namespace crrecord::tool {

class Pseudonyms {
public:
    using Hash = std::array<unsigned char, 32>;

    explicit Pseudonyms(std::span<unsigned char const> secret);
    // A copy has the same secret and shares the tables. Thread safety: one thread at a time uses an object; several may
    // use copies.

    // Returns: 32 random bytes from the system. Throws: Failure if there are none.
    static Hash RandomSecret();

    // In place; 16 or 32 bytes. Collisions are as likely as those of SHA-256 cut to that width.
    void Fingerprint(unsigned char* bytes, unsigned int width);

    // Different values have different pseudonyms. Values below 2^32 stay below 2^32, larger ones stay larger.
    // Reserved container ids are not changed.
    std::uint64_t Container(std::uint64_t id);
    // The path id and file id of a file; 0 stays 0.
    std::uint64_t Path(std::uint64_t id);
    std::uint64_t File(std::uint64_t id);
    std::uint64_t Reference(cr_reftype_t kind, std::uint64_t id);
    // 0, which means no checksum, stays 0.
    std::uint32_t Checksum(std::uint32_t crc);

    // In place: bytes that look random, equal for equal bitmaps.
    void Bitmap(std::span<unsigned char> bitmap);

private:
    enum Domain : unsigned char {
        kNone,
        kFingerprint,
        kContainer,
        kPath,
        kFile,
        kChecksum,
        kBitmap,
        kBitmapBlock,
        kReference, // plus the kind of reference
    };
    struct Known {
        unsigned char domain = kNone;
        std::uint64_t id = 0;
        std::uint64_t pseudonym = 0;
    };
    static constexpr unsigned char kRounds = 10;
    static constexpr unsigned int kShortHalf = 16;
    static constexpr unsigned int kRecentBits = 10;
    static constexpr std::size_t kRecent = std::size_t{1} << kRecentBits;

    // Ids below `least` are not changed.
    std::uint64_t Id(unsigned char domain, std::uint64_t id, std::uint64_t least);
    std::uint64_t Permuted(unsigned char domain, std::uint64_t id, std::uint64_t least);
    std::uint64_t Feistel(unsigned char domain, std::uint64_t value, unsigned int halfBits);
    std::uint64_t Round(unsigned char domain, unsigned int halfBits, unsigned char round, std::uint64_t right);
    std::uint64_t ShortRound(unsigned char domain, unsigned char round, std::uint64_t right);
    // HMAC-SHA-256 of the byte `domain`, which separates the uses of the secret, and of `bytes`.
    Hash Hmac(unsigned char domain, std::span<unsigned char const> bytes);

    // SHA-256 of OpenSSL's older interface, whose contexts are plain data: EVP_MAC takes three times as long for a few
    // bytes. After the block of the key, for the inner and the outer hash of HMAC (RFC 2104).
    SHA256_CTX inner_{};
    SHA256_CTX outer_{};
    std::vector<Known> recent_; // a cache: most records repeat a few containers
    // Results of the round function for halves of 16 bits: checksums hardly repeat, their halves do. 0 is a result that
    // is not known yet, or that is 0 and computed each time: with a flag the table would not fit a cache. Threads that
    // compute a result at the same time store the same value.
    struct ShortRounds {
        std::once_flag made;
        std::unique_ptr<std::atomic<std::uint16_t>[]> results;
    };
    static constexpr std::size_t kDomains = std::size_t{kReference} + std::size_t{CR_REFTYPE_END};
    std::shared_ptr<std::array<ShortRounds, kDomains>> shared_;       // by domain
    std::array<std::atomic<std::uint16_t>*, kDomains> shortRounds_{}; // the same results, once this object needs them
};

} // namespace crrecord::tool
