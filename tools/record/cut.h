// Cutting a file's content into segments, and placing them in containers.

#pragma once

#include "io/input.h"

#include <crrecord/container.h>
#include <crrecord/fingerprint.h>

#include <cstdint>
#include <functional>
#include <limits>

#include <CLI/CLI.hpp>

namespace crrecord::tool {

struct CutOptions {
    static constexpr unsigned int kLeastContainer = CR_FIRST_FREE_DCID;
    static constexpr unsigned int kMost32 = std::numeric_limits<std::uint32_t>::max();

    std::uint64_t segmentSize = 128UL * 1024;
    std::uint64_t containerSize = 64UL * 1024 * 1024;
    unsigned int fptype = CR_FP_TYPE_SHA256;
    unsigned int firstContainer = kLeastContainer;
    bool segmentCrcs = false; // whether segments have a CRC-32
};

// The size of a segment may be up to `mostBytes`.
void AddCutOptions(CLI::App& verb, CutOptions& options, unsigned int mostBytes = CutOptions::kMost32);

enum class Holes {
    AreZeros,
    AreGaps, // between segments, where the file system tells of them
};

struct CutSegment {
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
    std::uint32_t crc = 0; // CRC-32, as of gzip, or 0 without CutOptions::segmentCrcs
    unsigned int container = 0;
    crfp_digest_t fingerprint{};
};

// What was cut in all.
struct CutTotals {
    std::uint64_t bytes = 0; // gaps included
    std::uint64_t gaps = 0;  // bytes in no segment
    std::uint32_t crc = 0;   // CRC-32 of all bytes; those of gaps are zeros
    std::uint64_t segments = 0;
    unsigned int firstContainer = 0;
    unsigned int lastContainer = 0;

    std::uint64_t Containers() const { return std::uint64_t{lastContainer} - firstContainer + 1; }
};

// Reads all of `input` once, in little memory whatever the segments' size, with its progress on the terminal, and gives
// each segment in turn to `use`, on this thread. Segments of up to 256 KiB are hashed on all processors. Segments end
// at the multiples of their size and where a gap begins, so that a hole changes no segment but those that it touches.
// Containers are filled one behind the other. Throws Failure where the input is empty or all of it a gap, where a
// segment is larger than a container, and where container ids run past 32 bits.
CutTotals Cut(Input& input, CutOptions const& options, Holes holes, std::function<void(CutSegment const&)> const& use);

} // namespace crrecord::tool
