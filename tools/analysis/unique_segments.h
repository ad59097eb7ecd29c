// The set of different segments.

#pragma once

#include "analysis/hash_table.h"

#include <crrecord/fingerprint.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace crrecord::tool {

struct UniqueSums {
    std::uint64_t segments = 0; // different ones
    std::uint64_t bytes = 0;
    std::uint64_t repeatedBytes = 0;
};

// Segments are equal if their fingerprint type, fingerprint and size are equal: a fingerprint with two sizes is two
// segments.
//
// Segments are looked up in batches, so that the processor loads what a batch needs all at once: in a large set each
// lookup would otherwise wait for memory several times.
//
// Memory: 47 bytes for each different segment with a SHA-256 fingerprint, 31 for each with a 16-byte one.
class UniqueSegments {
public:
    // Counts a segment, at once or later. Without a fingerprint (null) it differs from all others.
    void Add(unsigned int fptype, unsigned char const* fingerprint, std::uint64_t size) {
        if (!fingerprint) {
            Count(true, size);
        } else if (fptype == CR_FP_TYPE_SHA256) {
            AddTo(wide_, fingerprint, size);
        } else {
            AddTo(narrow_[fptype], fingerprint, size);
        }
    }

    // Returns: the sums over all segments so far.
    UniqueSums const& Sums() {
        LookUp(wide_);
        std::for_each(narrow_.begin(), narrow_.end(), [this](auto& batch) { LookUp(batch); });
        return sums_;
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
    struct Batch {
        static constexpr std::size_t kMost = 64;

        Table<Width> table;
        std::size_t size = 0;
        std::array<Key<Width>, kMost> keys; // not looked up yet
        std::array<std::uint64_t, kMost> hashes;
    };

    template <unsigned int Width>
    void AddTo(Batch<Width>& batch, unsigned char const* fingerprint, std::uint64_t size) {
        Key<Width>& key = batch.keys[batch.size];
        std::memcpy(key.fingerprint, fingerprint, Width);
        std::memcpy(key.size, &size, sizeof size);
        batch.hashes[batch.size] = HashOfKey()(key);
        if (++batch.size == batch.kMost) {
            LookUp(batch);
        }
    }

    template <unsigned int Width>
    void LookUp(Batch<Width>& batch) {
        batch.table.Prefetch(std::span(batch.hashes).first(batch.size));
        for (std::size_t i = 0; i < batch.size; ++i) {
            Key<Width> const& key = batch.keys[i];
            bool const isNew = !batch.table.Find(batch.hashes[i], [&key](Key<Width> const& other) {
                return std::memcmp(&other, &key, sizeof key) == 0;
            });
            if (isNew) {
                batch.table.Add(batch.hashes[i], key);
            }
            std::uint64_t size = 0;
            std::memcpy(&size, key.size, sizeof size);
            Count(isNew, size);
        }
        batch.size = 0;
    }

    void Count(bool isNew, std::uint64_t size) {
        sums_.segments += isNew ? 1 : 0;
        (isNew ? sums_.bytes : sums_.repeatedBytes) += size;
    }

    Batch<32> wide_;
    std::array<Batch<16>, CR_FP_TYPE_SHA256> narrow_;
    UniqueSums sums_;
};

} // namespace crrecord::tool
