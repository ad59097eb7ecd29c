// The inputs of the benchmarks: an object of n segments, which depends on shape and n only.

#pragma once

#include "operation.h"

#include <crrecord/DORecord.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include <benchmark/benchmark.h>

namespace bench {

enum class Containers { InRuns, AtRandom };
inline constexpr unsigned int kRandomContainers = 10'000;

struct Input {
    Input(Shape wanted, unsigned int n, Containers containers = Containers::InRuns);

    Shape shape;
    unsigned int fingerprintSize;
    unsigned int stride; // bytes of a packed entry
    unsigned long objectSize = 0;
    std::vector<unsigned char> entries; // as the constructor of DORecord takes them
    std::vector<unsigned long> dcids;

    unsigned int Count() const { return static_cast<unsigned int>(dcids.size()); }
    std::unique_ptr<DORecord> MakeRecord() const;
};
using InputPtr = std::shared_ptr<Input const>;

struct FreeBlock {
    void operator()(void* block) const { std::free(block); }
};
using Block = std::unique_ptr<unsigned char, FreeBlock>;

// The optimiser must assume that the contents of the block are used.
Block NewBlock(std::size_t size);

std::vector<unsigned char> BytesOf(DORecord& record);
std::vector<unsigned char> FormOf(DORecord const& record, bool withChecksum);

// Distinct numbers from 1 to n in random order.
std::vector<unsigned long> ShuffledNumbers(unsigned int n);

template <class T>
T LoadAt(unsigned char const* bytes) {
    T value;
    std::memcpy(&value, bytes, sizeof value);
    return value;
}

// A record of DO type 3 with 32-byte fingerprints that the parser of a peer fills. It is a new block with the
// header of `like`.
class PeerRecord {
public:
    explicit PeerRecord(std::vector<unsigned char> const& like) : size_(like.size()), bytes_(NewBlock(size_)) {
        std::memcpy(bytes_.get(), like.data(), CR_DO_HEADER_SIZE);
        std::memset(bytes_.get() + size_ - kTail, 0, kTail);
        entry_ = bytes_.get() + CR_DO_HEADER_SIZE;
        dcid_ = entry_ + std::size_t{LoadAt<DORecordHeader>(like.data()).nfp} * kStride;
    }
    void Add(void const* fingerprint, unsigned int size, unsigned long offset, unsigned long dcid) {
        std::memcpy(entry_, fingerprint, 32);
        std::memcpy(entry_ + 32, &size, 4);
        std::memcpy(entry_ + 36, &offset, 8);
        std::memcpy(dcid_, &dcid, 8);
        entry_ += kStride;
        dcid_ += 8;
    }
    bool Equals(std::vector<unsigned char> const& record) const {
        return std::memcmp(bytes_.get(), record.data(), size_) == 0;
    }

private:
    static constexpr std::size_t kStride = 44, kTail = 24;

    std::size_t size_;
    Block bytes_;
    unsigned char* entry_;
    unsigned char* dcid_;
};

// A peer builds the record of `input` from `encoded`. The record must equal ours byte for byte.
template <class Decode>
Side PeerParse(Input const& input, std::vector<unsigned char> encoded, Decode decode) {
    auto const from = std::make_shared<std::vector<unsigned char> const>(std::move(encoded));
    auto const like = std::make_shared<std::vector<unsigned char> const>(BytesOf(*input.MakeRecord()));
    PeerRecord record(*like);
    Require(decode(*from, record) && record.Equals(*like), "the peer builds another record");
    return {[from, like, decode] {
        PeerRecord made(*like);
        Require(decode(*from, made), "the peer failed");
        benchmark::ClobberMemory();
    }};
}

} // namespace bench
