// Tuples of partitions in one temporary file.

#pragma once

#include "store/segment_tuple.h"
#include "store/temporary_file.h"

#include <atomic>
#include <functional>
#include <limits>
#include <vector>

namespace crrecord::tool {

// A partition's tuples are in extents, each of which gives the position of the one before, so that the file needs no
// memory for each extent. All partitions share the file; its space is free when the process ends.
//
// Thread safety: any number of threads may append and read.
class SpillFile {
public:
    static constexpr std::uint64_t kNone = std::numeric_limits<std::uint64_t>::max();
    // Tuples that are read at a time.
    static constexpr std::uint64_t kReadTuples = 1024;

    explicit SpillFile(std::string folder) : file_(std::move(folder)) {}

    // Writes one extent, piece by piece.
    class Extent {
    public:
        // `tuples` is the number that Append gets, `previous` the partition's last extent, or kNone.
        Extent(SpillFile& file, std::uint64_t tuples, std::uint64_t previous);
        void Append(std::span<SegmentTuple const> tuples);
        // The extent is complete. Returns: its position.
        std::uint64_t Finish();

    private:
        void Flush();

        SpillFile& file_;
        std::uint64_t start_;
        std::uint64_t at_;
        std::vector<unsigned char> buffer_;
    };

    // Calls use(tuples) for all tuples of the extent at `last` and those before it.
    // Throws: Failure if the file cannot be read or its bytes are not what Extent writes.
    void Read(std::uint64_t last, std::function<void(std::span<SegmentTuple const>)> const& use) const;

private:
    struct Head {
        std::uint64_t previous;
        std::uint64_t tuples;
    };

    TemporaryFile file_;
    std::atomic<std::uint64_t> end_{0};

    Head ReadHead(std::uint64_t extent) const;
    friend struct SpillFileOf; // makes a file of any bytes, for tests
};

} // namespace crrecord::tool
