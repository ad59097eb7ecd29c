// Cuts a file's content into segments and assigns them to containers.

#pragma once

#include "io/input.h"
#include "record/content_cut.h"

#include <crrecord/container.h>
#include <crrecord/fingerprint.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>

namespace crrecord::tool {

struct CutOptions {
    static constexpr unsigned int kLeastContainer = CR_FIRST_FREE_DCID;
    static constexpr unsigned int kMost32 = std::numeric_limits<std::uint32_t>::max();

    std::uint64_t segmentSize = 128UL * 1024; // unless `content` is set
    std::optional<ContentCut> content;
    std::uint64_t containerSize = 64UL * 1024 * 1024;
    unsigned int fptype = CR_FP_TYPE_SHA256;
    unsigned int firstContainer = kLeastContainer;
    bool segmentCrcs = false; // whether segments have a CRC-32

    std::uint64_t LargestSegment() const { return content ? content->most : segmentSize; }
    std::uint64_t UsualSegment() const { return content ? content->average : segmentSize; }
};

enum class Holes {
    AreZeros,
    AreGaps, // between segments, if the file system reports them
};

struct CutSegment {
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
    std::uint32_t crc = 0;       // CRC-32, as of gzip, or 0 without CutOptions::segmentCrcs
    std::uint64_t container = 0; // set by the caller
    crfp_digest_t fingerprint{};
};

// Sums over the input.
struct CutTotals {
    std::uint64_t bytes = 0; // gaps included
    std::uint64_t gaps = 0;  // bytes in no segment
    std::uint32_t crc = 0;   // CRC-32 of all bytes; those of gaps are zeros
    std::uint64_t segments = 0;
};

// Reads `input` to its end and calls use(segment) for each segment, in order and on this thread. Shows the progress on
// the terminal. Segments of up to 256 KiB, and those cut by
// content, are hashed on all processors. Segments end where
// their content says so, or at multiples of their size; and where a gap begins, so a hole changes only the segments
// that it touches.
// Throws: InputFailure if the input cannot be read.
// Memory: at most 136 MiB for the batches, for any number of processors.
CutTotals Cut(Input& input, CutOptions const& options, Holes holes, std::function<void(CutSegment&)> const& use);

// Throws: InputFailure if `totals` have no segments.
void ThrowIfEmpty(std::string const& name, CutTotals const& totals);

} // namespace crrecord::tool
