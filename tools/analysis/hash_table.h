// One hash table for everything that a verb counts by its key, and the hashes that go with it.

#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace crrecord::tool {

// Elements that stay where they are while their number grows; never more than one block is unused.
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

private:
    static constexpr std::size_t kBlock = 4096;

    std::vector<std::unique_ptr<T[]>> blocks_;
    std::size_t size_ = 0;
};

// A table by linear hashing: it grows by one bucket at a time, whose entries it takes from one other bucket, so that it
// neither stops to hash everything anew nor ever needs the memory of two tables. An entry costs its own bytes and 4 for
// the link to the next one of its bucket, rounded up to its alignment, and 2.7 for the bucket. Entries stay where they
// are and are numbered in the order of their coming.
//
// HashOf()(entry) is the hash under which an entry was added.
template <class Entry, class HashOf>
class HashTable {
public:
    HashTable() { buckets_.push_back(kNone); }

    std::size_t size() const { return nodes_.size(); }
    Entry& operator[](std::size_t i) { return nodes_[i].entry; }
    Entry const& operator[](std::size_t i) const { return nodes_[i].entry; }

    // The entry of this hash for which equal(entry) is true, or null.
    template <class Equal>
    Entry* Find(std::uint64_t hash, Equal equal) {
        for (std::uint32_t i = buckets_[BucketOf(hash)]; i != kNone;) {
            Node& node = nodes_[i];
            if (equal(node.entry)) {
                return &node.entry;
            }
            i = node.next;
        }
        return nullptr;
    }

    // For an entry that is not there yet.
    Entry& Add(std::uint64_t hash, Entry const& entry) {
        if (nodes_.size() == kNone) {
            throw std::bad_alloc();
        }
        auto const added = static_cast<std::uint32_t>(nodes_.size());
        std::uint32_t& first = buckets_[BucketOf(hash)];
        nodes_.push_back({entry, first});
        first = added;
        if (2 * nodes_.size() > 3 * buckets_.size()) {
            Grow();
        }
        return nodes_[added].entry;
    }

private:
    static constexpr std::uint32_t kNone = std::numeric_limits<std::uint32_t>::max();

    struct Node {
        Entry entry;
        std::uint32_t next;
    };

    // The buckets in front of split_, and those behind the first round_ ones, are told apart by one more bit.
    std::size_t BucketOf(std::uint64_t hash) const {
        std::size_t const bucket = hash & (round_ - 1);
        return bucket < split_ ? hash & (2 * round_ - 1) : bucket;
    }

    // Shares the entries of the next bucket to be split between it and a new one.
    void Grow() {
        buckets_.push_back(kNone);
        std::uint32_t i = std::exchange(buckets_[split_], kNone);
        if (++split_ == round_) {
            round_ *= 2;
            split_ = 0;
        }
        while (i != kNone) {
            Node& node = nodes_[i];
            std::uint32_t& first = buckets_[BucketOf(HashOf()(node.entry))];
            std::uint32_t const next = std::exchange(node.next, first);
            first = i;
            i = next;
        }
    }

    GrowingArray<Node> nodes_;
    GrowingArray<std::uint32_t> buckets_;
    std::size_t round_ = 1; // buckets when the present round began, a power of two
    std::size_t split_ = 0; // buckets that it has split
};

// Hashes that nobody can prepare records against: they differ from run to run.
std::uint64_t HashOfNumber(std::uint64_t number);
std::uint64_t HashOfSegment(unsigned char const* fingerprint, unsigned int width, std::uint64_t size);

} // namespace crrecord::tool
