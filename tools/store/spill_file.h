// Tuples of partitions in a temporary file.

#pragma once

#include "store/segment_tuple.h"
#include "store/temporary_file.h"

#include <atomic>
#include <functional>
#include <limits>
#include <memory>

namespace crrecord::tool {

// A partition's tuples are in extents, each of which starts with a link to the one before, so that the file needs no
// memory for each extent. The tuples of an extent are in runs, whose heads have what neighbours have in common. A tuple
// has a size for each set that it is in. The file's space is freed when the object is destroyed or the process ends.
//
// Thread safety: one thread may write while any number of threads read what was written before.
class SpillFile {
public:
    static constexpr std::uint64_t kNone = std::numeric_limits<std::uint64_t>::max();
    // Tuples that are read at a time.
    static constexpr std::size_t kReadTuples = 256;

    explicit SpillFile(std::string folder) : file_(std::move(folder)) {}

    // The place of an extent.
    struct Link {
        std::uint64_t position = kNone;
        std::uint32_t bytes = 0; // with the link at its start
        std::uint32_t tuples = 0;
    };

    // The extents of one partition.
    struct Chain {
        Link last;
        std::uint64_t tuples = 0; // of all extents
    };

    // Adds extents to chains. Many of them are written at a time.
    class Writer {
    public:
        explicit Writer(SpillFile& file)
            : file_(file), bytes_(std::make_unique_for_overwrite<unsigned char[]>(kMostBytes)) {}
        // Lifetime: the chain must exist until Finish returns. Throws, here and below: Failure if the file cannot be
        // written; the chains are undefined.
        void Append(Chain& chain, TupleBlock const& block);
        // Call it after the last Append.
        void Finish();

    private:
        void AppendRun(TupleBlock const& run);
        void EndExtent();

        SpillFile& file_;
        std::unique_ptr<unsigned char[]> bytes_; // of extents that are not written yet
        std::size_t size_ = 0;
        Chain* chain_ = nullptr;   // of the last extent
        std::size_t start_ = 0;    // of the last extent
        std::uint32_t tuples_ = 0; // of the last extent; 0 if none is begun
    };

    // Calls use(tuples) for all tuples of a chain.
    // Throws: Failure if the file cannot be read or its bytes are not what Writer writes.
    using Use = std::function<void(std::span<SegmentTuple const>)>;
    void Read(Chain const& chain, Use const& use) const;

private:
    static constexpr std::size_t kMostBytes = 256UL * 1024; // that are written at a time, and of an extent

    struct RunHead {
        std::uint64_t dcid;
        std::uint32_t tuples;
        std::uint8_t fptype;
        std::uint8_t flags;
        std::uint16_t zero;
    };
    static_assert(sizeof(Link) == 16 && sizeof(RunHead) == 16);

    TemporaryFile file_;
    std::atomic<std::uint64_t> end_{0};

    // Calls use(tuples) for an extent of this number of tuples. `some` has space for kReadTuples of them.
    static void Decode(std::span<unsigned char const> extent, std::uint64_t tuples, SegmentTuple* some, Use const& use);
    friend struct SpillFileOf; // makes a file of any bytes, for tests
};

} // namespace crrecord::tool
