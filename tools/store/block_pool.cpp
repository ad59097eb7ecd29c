#include "store/block_pool.h"

#include <new>

#include <sys/mman.h>

namespace crrecord::tool {

BlockPool::BlockPool(std::uint64_t blocks, unsigned int tuplesBits) : blocks_(blocks), tuplesBits_(tuplesBits) {
    void* const pages =
        ::mmap(nullptr, Size(), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (pages == MAP_FAILED) {
        throw std::bad_alloc();
    }
    memory_ = static_cast<SegmentTuple*>(pages);
    [[maybe_unused]] int const advised = ::madvise(pages, Size(), MADV_HUGEPAGE); // for speed only
}

BlockPool::~BlockPool() {
    ::munmap(memory_, Size());
}

std::uint64_t BlockPool::Used() {
    std::lock_guard const lock(mutex_);
    return used_;
}

SegmentTuple* BlockPool::Take() {
    std::lock_guard const lock(mutex_);
    if (used_ == blocks_) {
        throw std::bad_alloc();
    }
    ++used_;
    if (!returned_) {
        return memory_ + fresh_++ * TuplesInBlock();
    }
    SegmentTuple* const block = returned_;
    std::memcpy(&returned_, block, sizeof returned_);
    return block;
}

void BlockPool::Return(SegmentTuple* block) {
    std::lock_guard const lock(mutex_);
    std::memcpy(static_cast<void*>(block), &returned_, sizeof returned_);
    returned_ = block;
    --used_;
}

} // namespace crrecord::tool
