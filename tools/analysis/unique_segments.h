// The set of different segments.

#pragma once

#include "analysis/hash_table.h"

#include <crrecord/fingerprint.h>

#include <array>
#include <cstring>

namespace crrecord::tool {

// Segments are equal if their fingerprint type, fingerprint and size are equal: a fingerprint with two sizes is two
// segments.
//
// Memory: 47 bytes for each different segment with a SHA-256 fingerprint, 31 for each with a 16-byte one.
class UniqueSegments {
public:
    // Returns: true for a new segment.
    bool Insert(unsigned int fptype, unsigned char const* fingerprint, std::uint64_t size) {
        return fptype == CR_FP_TYPE_SHA256 ? InsertInto(wide_, fingerprint, size)
                                           : InsertInto(narrow_[fptype], fingerprint, size);
    }

private:
    // An array of bytes, because alignment would cost memory.
    template <unsigned int Width>
    struct Key {
        unsigned char fingerprint[Width];
        unsigned char size[sizeof(std::uint64_t)];
    };
    struct HashOfKey {
        template <unsigned int Width>
        std::uint64_t operator()(Key<Width> const& key) const {
            std::uint64_t size;
            std::memcpy(&size, key.size, sizeof size);
            return HashOfSegment(key.fingerprint, Width, size);
        }
    };
    template <unsigned int Width>
    using Table = HashTable<Key<Width>, HashOfKey>;

    template <unsigned int Width>
    static bool InsertInto(Table<Width>& table, unsigned char const* fingerprint, std::uint64_t size) {
        Key<Width> key;
        std::memcpy(key.fingerprint, fingerprint, Width);
        std::memcpy(key.size, &size, sizeof size);
        std::uint64_t const hash = HashOfSegment(fingerprint, Width, size);
        if (table.Find(hash, [&](Key<Width> const& other) { return std::memcmp(&other, &key, sizeof key) == 0; })) {
            return false;
        }
        table.Add(hash, key);
        return true;
    }

    Table<32> wide_;
    std::array<Table<16>, CR_FP_TYPE_SHA256> narrow_;
};

} // namespace crrecord::tool
