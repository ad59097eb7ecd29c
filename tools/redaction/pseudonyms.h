// Other names for what records name.
//
// Whoever has a pseudonym and not the secret learns nothing of the value but what stands here: the same value has the
// same pseudonym for as long as the secret is the same, and trying out all values leads nowhere. Memory: constant.

#pragma once

#include "redaction/keyed_hash.h"

#include <crrecord/tref.h>

#include <cstdint>
#include <vector>

namespace crrecord::tool {

class Pseudonyms {
public:
    explicit Pseudonyms(std::span<unsigned char const> secret) : hash_(secret), recent_(kRecent) {}

    // In place; 16 or 32 bytes. Two values share a pseudonym with the odds of a collision of SHA-256 cut to that width.
    void Fingerprint(unsigned char* bytes, unsigned int width);

    // Different values have different pseudonyms. Values below 2^32 stay below it, larger ones above.
    // The ids that are not free for use stay as they are.
    std::uint64_t Container(std::uint64_t id);
    // A file's path id and file id; 0 stays 0.
    std::uint64_t Path(std::uint64_t id);
    std::uint64_t File(std::uint64_t id);
    std::uint64_t Reference(cr_reftype_t kind, std::uint64_t id);
    // 0, which stands for none, stays 0.
    std::uint32_t Checksum(std::uint32_t crc);

    // In place: bytes that look random, the same for the same bitmap.
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
        kReference, // and the kind of reference on top
    };
    struct Known {
        unsigned char domain = kNone;
        std::uint64_t id = 0;
        std::uint64_t pseudonym = 0;
    };
    static constexpr unsigned int kRecentBits = 12;
    static constexpr std::size_t kRecent = std::size_t{1} << kRecentBits;

    // Ids below `least` stay as they are.
    std::uint64_t Id(unsigned char domain, std::uint64_t id, std::uint64_t least);
    std::uint64_t Permuted(unsigned char domain, std::uint64_t id, std::uint64_t least);
    std::uint64_t Feistel(unsigned char domain, std::uint64_t value, unsigned int halfBits);

    KeyedHash hash_;
    std::vector<Known> recent_; // since records name the same few containers again and again
};

} // namespace crrecord::tool
