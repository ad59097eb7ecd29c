// A piece of work for one thread when a file is cut.

#pragma once

#include "record/cut.h"
#include "record/parallel_sha256.h"

#include <memory>
#include <vector>

namespace crrecord::tool {

// Consecutive bytes of the input, and the segments that end in them.
struct CutBatch {
    std::vector<unsigned char> bytes;
    std::uint64_t number = 0; // from 0
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
    bool endsSegment = false;               // a gap or the input's end follows
    std::uint32_t crc = 0;                  // of all bytes
    std::vector<std::uint32_t> sizes;       // of the segments, if the batch consists of whole ones
    std::vector<CutSegment> segments;       // without their containers
    std::unique_ptr<ParallelSha256> sha256; // if the segments are hashed at once
};

// Returns: the size of the segment that starts at `offset` of an object. `bytes` are the rest of the object, or at
// least as many as the largest segment has.
std::uint64_t FirstSegment(std::span<unsigned char const> bytes, std::uint64_t offset, CutOptions const& options);

// The start of hashing at once takes longer than is saved with fewer bytes.
inline constexpr std::uint64_t kLeastParallelInput = 32UL * 1024 * 1024;

// Returns: true if segments of this kind can be hashed at once. Takes some time.
bool CanDigestAtOnce(CutOptions const& options);

// Computes fingerprints and checksums of the segments of a batch of whole segments, of several at once if `atOnce`.
// Throws: Failure.
void DigestWhole(CutBatch& batch, CutOptions const& options, bool atOnce);

} // namespace crrecord::tool
