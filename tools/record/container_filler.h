// Assigns new segments to containers.

#pragma once

#include "io/failure.h"
#include "record/cut.h"

#include <fmt/format.h>

namespace crrecord::tool {

// Fills containers one after the other.
class ContainerFiller {
public:
    // Throws: Failure if a segment may be larger than a container.
    explicit ContainerFiller(CutOptions const& options)
        : size_(options.containerSize), first_(options.firstContainer), current_(first_) {
        if (size_ < options.LargestSegment()) {
            throw Failure(fmt::format("a container of {} bytes cannot hold a segment of {}: raise --container-size",
                                      size_, options.LargestSegment()));
        }
    }

    // Returns: the container of the next segment: the current one while the segment fits into it.
    // Throws: Failure if container ids would exceed 32 bits.
    unsigned int Place(std::uint64_t bytes) {
        if (size_ - used_ < bytes) {
            if (current_ == CutOptions::kMost32) {
                throw Failure(fmt::format("no container ids are left after {}: choose larger containers or a first "
                                          "container before {}",
                                          CutOptions::kMost32, first_));
            }
            ++current_;
            used_ = 0;
        }
        used_ += bytes;
        return current_;
    }

    unsigned int First() const { return first_; }
    // The container that was filled last, or the first one.
    unsigned int Current() const { return current_; }
    // Returns: the number of containers with segments.
    std::uint64_t Count() const { return used_ == 0 ? 0 : std::uint64_t{current_} - first_ + 1; }

private:
    std::uint64_t size_;
    unsigned int first_;
    unsigned int current_;
    std::uint64_t used_ = 0; // bytes of the current container
};

} // namespace crrecord::tool
