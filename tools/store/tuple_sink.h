// The receiver of a scan's tuples.

#pragma once

#include "store/segment_tuple.h"

#include <span>

namespace crrecord::tool {

class TupleSink {
public:
    TupleSink() = default;
    virtual ~TupleSink() = default;
    TupleSink(TupleSink const&) = delete;
    TupleSink& operator=(TupleSink const&) = delete;

    // Returns: how many threads may call Add.
    virtual unsigned int Threads() const = 0;

    // Adds tuples. Thread safety: any number of threads. HasSpace must have been true for the tuples of all threads.
    virtual void Add(std::span<SegmentTuple const> tuples) = 0;

    // Returns: the largest number of tuples of one batch, so that enough batches fit for all threads.
    virtual std::uint64_t BatchTuples() const = 0;
    // Returns: whether `tuples` tuples fit. Threads may have added some of them already.
    virtual bool HasSpace(std::uint64_t tuples) = 0;
    // Frees memory. Add may not run.
    virtual void FreeMemory() = 0;
};

} // namespace crrecord::tool
