// A hash table and its hash functions.

#pragma once

#include "base/byteorder.h"
#include "base/prefetch.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <new>
#include <span>
#include <utility>
#include <vector>

namespace crrecord::tool {

// An array that grows without moving its elements. At most one block is unused.
template <class T>
class GrowingArray {
public:
    T& operator[](std::size_t i) { return blocks_[i / kBlock][i % kBlock]; }
    T const& operator[](std::size_t i) const { return blocks_[i / kBlock][i % kBlock]; }
    std::size_t size() const { return size_; }

    void push_back(T const& value) {
        if (size_ == blocks_.size() * kBlock) {
            blocks_.emplace_back(new T[kBlock]);
        }
        (*this)[size_] = value;
        ++size_;
    }

    std::size_t MemoryBytes() const { return blocks_.size() * kBlock * sizeof(T); }

    // Removes the elements after the first `size`.
    void Truncate(std::size_t size) {
        size_ = size;
        blocks_.resize((size + kBlock - 1) / kBlock);
    }

private:
    static constexpr std::size_t kBlock = 4096;

    std::vector<std::unique_ptr<T[]>> blocks_;
    std::size_t size_ = 0;
};

// A table with linear hashing: it grows by one bucket at a time and moves only the entries of one bucket, so it needs
// neither a pause to rehash everything nor memory for two tables. An entry costs its size, 4 bytes for a link and 2.7
// bytes for the bucket. Entries do not move and are numbered in the order of insertion.
//
// HashOf()(entry) must be the hash that was passed to Add.
template <class Entry, class HashOf>
class HashTable {
public:
    HashTable() { buckets_.push_back(kNone); }

    std::size_t size() const { return entries_.size(); }
    Entry& operator[](std::size_t i) { return entries_[i]; }
    Entry const& operator[](std::size_t i) const { return entries_[i]; }

    // Returns: the entry of this hash for which equal(entry) is true, or null.
    template <class Equal>
    Entry* Find(std::uint64_t hash, Equal equal) {
        for (std::uint32_t i = buckets_[BucketOf(hash)]; i != kNone;) {
            if (equal(entries_[i])) {
                return &entries_[i];
            }
            i = next_[i];
        }
        return nullptr;
    }

    // Prefetches what Find and Add will use for these hashes, and for growing meanwhile.
    void Prefetch(std::span<std::uint64_t const> hashes) const {
        for (std::uint64_t const hash : hashes) {
            crrecord::Prefetch(&buckets_[BucketOf(hash)], 0, 1);
        }
        for (std::size_t i = split_; i < std::min(split_ + hashes.size(), round_); ++i) {
            PrefetchFirst(i);
        }
        for (std::uint64_t const hash : hashes) {
            PrefetchFirst(BucketOf(hash));
        }
    }

    // Adds an entry, which must not be in the table.
    Entry& Add(std::uint64_t hash, Entry const& entry) {
        if (entries_.size() == kNone) {
            throw std::bad_alloc();
        }
        auto const added = static_cast<std::uint32_t>(entries_.size());
        std::uint32_t& first = buckets_[BucketOf(hash)];
        entries_.push_back(entry);
        next_.push_back(first);
        first = added;
        if (2 * entries_.size() > 3 * buckets_.size()) {
            Grow();
        }
        return entries_[added];
    }

    // Frees the memory of buckets and links. The entries remain. Find and Add must not be called afterwards.
    void FreeLinks() {
        buckets_ = {};
        next_ = {};
    }

private:
    static constexpr std::uint32_t kNone = std::numeric_limits<std::uint32_t>::max();

    void PrefetchFirst(std::size_t bucket) const {
        if (std::uint32_t const first = buckets_[bucket]; first != kNone) {
            crrecord::Prefetch(&entries_[first], 0, sizeof(Entry));
            crrecord::Prefetch(&next_[first], 0, 1);
        }
    }

    // The buckets before split_ were split: their entries, and those of the buckets from round_ on, use one more bit.
    std::size_t BucketOf(std::uint64_t hash) const {
        std::size_t const bucket = hash & (round_ - 1);
        return bucket < split_ ? hash & (2 * round_ - 1) : bucket;
    }

    // Splits the next bucket: moves some of its entries to a new one.
    void Grow() {
        buckets_.push_back(kNone);
        std::uint32_t i = std::exchange(buckets_[split_], kNone);
        if (++split_ == round_) {
            round_ *= 2;
            split_ = 0;
        }
        while (i != kNone) {
            std::uint32_t& first = buckets_[BucketOf(HashOf()(entries_[i]))];
            std::uint32_t const next = std::exchange(next_[i], first);
            first = i;
            i = next;
        }
    }

    GrowingArray<Entry> entries_;
    GrowingArray<std::uint32_t> next_; // of each entry in its bucket
    GrowingArray<std::uint32_t> buckets_;
    std::size_t round_ = 1; // buckets at the start of the round, a power of two
    std::size_t split_ = 0; // buckets split in this round
};

// Hashes with a random seed of the process, so that crafted records cannot make all of them collide.
struct HashSeeds {
    std::uint64_t first, second, third;
};
extern HashSeeds const kHashSeeds;

// Every bit of the result depends on all bits of both numbers.
inline std::uint64_t MixOf(std::uint64_t a, std::uint64_t b) noexcept {
    __extension__ using Product = unsigned __int128;
    Product const product = Product{a} * b;
    return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

inline std::uint64_t HashOfNumber(std::uint64_t number) noexcept {
    return MixOf(number ^ kHashSeeds.first, kHashSeeds.second);
}

inline std::uint64_t HashOfSegment(unsigned char const* fingerprint, unsigned int width, std::uint64_t size) noexcept {
    std::uint64_t hash = size ^ kHashSeeds.first;
    for (unsigned int at = 0; at < width; at += 16) {
        hash = MixOf(Load<std::uint64_t>(fingerprint + at) ^ hash,
                     Load<std::uint64_t>(fingerprint + at + 8) ^ kHashSeeds.third);
    }
    return MixOf(hash, kHashSeeds.second);
}

struct HashOfContainer {
    std::uint64_t operator()(auto const& entry) const { return HashOfNumber(entry.dcid); }
};

// An entry for each container, in the order of first use. Entry{dcid} makes a new one.
template <class Entry>
class ContainerTable {
public:
    // Returns: the entry of a container, a new one if there is none. Lifetime: that of the table.
    Entry& Of(std::uint64_t dcid) {
        if (!last_ || last_->dcid != dcid) {
            Entry* const found = Find(dcid);
            last_ = found ? found : &table_.Add(HashOfNumber(dcid), Entry{dcid});
        }
        return *last_;
    }

    // Returns: the entry of a container, or null. Thread safety: several threads may call it if none calls Of.
    Entry* Find(std::uint64_t dcid) {
        return table_.Find(HashOfNumber(dcid), [dcid](Entry const& entry) { return entry.dcid == dcid; });
    }

    // Frees the memory that only Of and Find need. They must not be called afterwards.
    void FreeLinks() { table_.FreeLinks(); }

    std::size_t size() const { return table_.size(); }
    Entry& operator[](std::size_t i) { return table_[i]; }
    Entry const& operator[](std::size_t i) const { return table_[i]; }

private:
    HashTable<Entry, HashOfContainer> table_;
    Entry* last_ = nullptr; // consecutive segments are often in one container
};

} // namespace crrecord::tool
