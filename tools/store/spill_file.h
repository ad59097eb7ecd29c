// Tuples of partitions in one temporary file.

#pragma once

#include "store/segment_tuple.h"
#include "store/temporary_file.h"

#include <atomic>
#include <functional>
#include <limits>
#include <memory>

namespace crrecord::tool {

// A partition's tuples are in extents, each of which gives the position of the one before, so that the file needs no
// memory for each extent. All partitions share the file; its space is free when the process ends. The tuples of an
// extent are in runs, whose heads have what neighbours have in common. A tuple has a size for each set that it is in.
//
// Thread safety: any number of threads may write and read.
class SpillFile {
public:
    static constexpr std::uint64_t kNone = std::numeric_limits<std::uint64_t>::max();
    // Tuples that are read at a time.
    static constexpr std::size_t kReadTuples = 1024;

    explicit SpillFile(std::string folder) : file_(std::move(folder)) {}

    // The extents of one partition.
    struct Chain {
        std::uint64_t last = kNone; // the position of the last one
        std::uint64_t tuples = 0;   // of all
    };

    // Adds extents to a chain.
    class Writer {
    public:
        Writer(SpillFile& file, Chain& chain)
            : file_(file), chain_(chain), bytes_(std::make_unique_for_overwrite<unsigned char[]>(kMostBytes)) {}
        void Append(TupleBlock const& block);
        // Call it after the last Append.
        void Finish();

    private:
        void AppendRun(TupleBlock const& run);

        SpillFile& file_;
        Chain& chain_;
        std::unique_ptr<unsigned char[]> bytes_; // of the extent
        std::size_t size_ = 0;
        std::uint32_t tuples_ = 0;
    };

    // Calls use(tuples) for all tuples of a chain.
    // Throws: Failure if the file cannot be read or its bytes are not what Writer writes.
    using Use = std::function<void(std::span<SegmentTuple const>)>;
    void Read(Chain const& chain, Use const& use) const;

private:
    static constexpr std::size_t kMostBytes = 128UL * 1024; // of an extent

    struct Head {
        std::uint64_t previous;
        std::uint32_t tuples;
        std::uint32_t bytes; // after the head
    };
    struct RunHead {
        std::uint64_t dcid;
        std::uint32_t tuples;
        std::uint8_t fptype;
        std::uint8_t flags;
        std::uint16_t zero;
    };
    static_assert(sizeof(Head) == 16 && sizeof(RunHead) == 16);

    TemporaryFile file_;
    std::atomic<std::uint64_t> end_{0};

    Head ReadHead(std::uint64_t extent) const;
    // Calls use(tuples) for an extent of this number of tuples. `some` has space for kReadTuples of them.
    static void Decode(std::span<unsigned char const> extent, std::uint64_t tuples, SegmentTuple* some, Use const& use);
    friend struct SpillFileOf; // makes a file of any bytes, for tests
};

} // namespace crrecord::tool
