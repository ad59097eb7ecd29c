// Memory for the nodes of a record's reference sets. Part of DORecord.h.

#pragma once

#include <algorithm>
#include <cstddef>
#include <new>
#include <type_traits>

// Nodes of one size, from blocks of operator new. The first block has two nodes, and each later one twice as many as
// the one before it, up to 256. A returned node is used again first. When the last node is returned, the blocks are
// freed.
//
// Thread safety: one thread at a time.
class DOReferenceNodes {
public:
    DOReferenceNodes() noexcept
        : unused_(nullptr), blocks_(nullptr), next_(nullptr), size_(0), left_(0), used_(0), last_(1) {}
    ~DOReferenceNodes() { FreeBlocks(); }
    DOReferenceNodes(DOReferenceNodes const&) = delete;
    DOReferenceNodes& operator=(DOReferenceNodes const&) = delete;

    // Whether the nodes have this size in bytes, which is that of the first one.
    bool HaveSize(std::size_t size) const noexcept { return size_ == size || size_ == 0; }

    // Returns: `size` bytes, aligned for pointers.
    // Preconditions: HaveSize(size); `size` is not below that of a pointer.
    // Throws: std::bad_alloc.
    void* Take(std::size_t size) {
        size_ = size;
        void* node = unused_;
        if (unused_) {
            unused_ = unused_->next;
        } else {
            if (left_ == 0) {
                AddBlock(size);
            }
            node = next_;
            next_ += size;
            --left_;
        }
        ++used_;
        return node;
    }

    // Returns a node that Take returned.
    void Return(void* node) noexcept {
        unused_ = ::new (node) Link{unused_};
        if (--used_ == 0) {
            FreeBlocks();
        }
    }

private:
    struct Link {
        Link* next;
    };

    void AddBlock(std::size_t size) {
        std::size_t const count = std::min<std::size_t>(2 * last_, 256);
        void* const block = ::operator new(sizeof(Link) + count * size);
        blocks_ = ::new (block) Link{blocks_};
        next_ = static_cast<unsigned char*>(block) + sizeof(Link);
        left_ = last_ = count;
    }

    void FreeBlocks() noexcept {
        while (blocks_) {
            Link* const block = blocks_;
            blocks_ = block->next;
            ::operator delete(block);
        }
        unused_ = nullptr;
        left_ = 0;
        last_ = 1;
    }

    Link* unused_;
    Link* blocks_;
    unsigned char* next_; // first node of the newest block that was never used
    std::size_t size_;    // of a node; 0 before the first
    std::size_t left_;    // nodes from next_ on
    std::size_t used_;
    std::size_t last_; // nodes of the newest block
};

// The allocator of a record's reference sets. Memory of another size than a node's is from operator new.
//
// Lifetime: a set that is copied takes its nodes from operator new and may outlive the record. A set or node handle
// that is moved, swapped or extracted from a record must not, and must not be merged into a set of another record.
template <class T>
class DOReferenceAllocator {
public:
    using value_type = T;
    using propagate_on_container_move_assignment = std::true_type;
    using propagate_on_container_swap = std::true_type;

    DOReferenceAllocator() noexcept : nodes_(nullptr) {}
    explicit DOReferenceAllocator(DOReferenceNodes& nodes) noexcept : nodes_(&nodes) {}
    template <class U>
    DOReferenceAllocator(DOReferenceAllocator<U> const& other) noexcept : nodes_(other.nodes_) {}

    DOReferenceAllocator select_on_container_copy_construction() const noexcept { return {}; }
    T* allocate(std::size_t count) {
        return static_cast<T*>(IsNode(count) ? nodes_->Take(sizeof(T)) : ::operator new(count * sizeof(T)));
    }
    void deallocate(T* objects, std::size_t count) noexcept {
        IsNode(count) ? nodes_->Return(objects) : ::operator delete(objects);
    }
    template <class U>
    bool operator==(DOReferenceAllocator<U> const& other) const noexcept {
        return nodes_ == other.nodes_;
    }
    template <class U>
    bool operator!=(DOReferenceAllocator<U> const& other) const noexcept {
        return nodes_ != other.nodes_;
    }

private:
    template <class U>
    friend class DOReferenceAllocator;

    bool IsNode(std::size_t count) const noexcept {
        return nodes_ != nullptr && count == 1 && sizeof(T) >= sizeof(void*) && nodes_->HaveSize(sizeof(T));
    }

    DOReferenceNodes* nodes_; // may be null
};
