#include "store/block_pool.h"

#include <new>

#include <sys/mman.h>

namespace crrecord::tool {

BlockPool::BlockPool(std::uint64_t blocks, unsigned int tuplesBits, std::uint64_t partitions, std::uint64_t places)
    : blocks_(blocks), tuplesBits_(tuplesBits), places_(places),
      size_(blocks * TuplesInBlock() * kTupleBytes + partitions * places * sizeof(TuplePlace)) {
    void* const pages =
        ::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (pages == MAP_FAILED) {
        throw std::bad_alloc();
    }
    tuples_ = static_cast<TupleBase*>(pages);
    secondSizes_ = reinterpret_cast<std::uint64_t*>(tuples_ + blocks * TuplesInBlock());
    placeMemory_ = reinterpret_cast<TuplePlace*>(secondSizes_ + blocks * TuplesInBlock());
    [[maybe_unused]] int const advised = ::madvise(pages, size_, MADV_HUGEPAGE); // for speed only
}

BlockPool::~BlockPool() {
    ::munmap(tuples_, size_);
}

std::uint64_t BlockPool::Used() {
    std::lock_guard const lock(mutex_);
    return used_;
}

TupleBase* BlockPool::Take() {
    std::lock_guard const lock(mutex_);
    if (used_ == blocks_) {
        throw std::bad_alloc();
    }
    ++used_;
    if (!returned_) {
        return tuples_ + fresh_++ * TuplesInBlock();
    }
    TupleBase* const block = returned_;
    std::memcpy(&returned_, block, sizeof returned_);
    return block;
}

void BlockPool::Return(TupleBase* block) {
    std::lock_guard const lock(mutex_);
    std::memcpy(static_cast<void*>(block), &returned_, sizeof returned_);
    returned_ = block;
    --used_;
}

} // namespace crrecord::tool
