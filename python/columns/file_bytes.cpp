#include "columns/file_bytes.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

namespace crrecord::python::columns {

namespace {

constexpr std::size_t kReadSize = 4UL << 20;

[[noreturn]] void ThrowErrno(std::string const& path) {
    int const number = errno;
    if (number == EINTR) {
        throw Interrupted();
    }
    throw ReadError(number, path);
}

} // namespace

ReadError::ReadError(int errorNumber, std::string const& of)
    : std::runtime_error(of + ": " + std::strerror(errorNumber)), number(errorNumber), path(of) {}

FileBytes::FileBytes(std::string const& path) : path_(path), descriptor_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (descriptor_ < 0) {
        ThrowErrno(path_);
    }
}

FileBytes::~FileBytes() {
    ::close(descriptor_);
}

// Extends the buffer after end_: to the bytes that are kept it adds as many again, or what is missing to `least`.
void FileBytes::Reserve(std::size_t least) {
    std::size_t const kept = end_ - first_;
    bool const isMuchTooLarge = capacity_ > 4 * kReadSize && least <= kReadSize;
    if (capacity_ - kept != 0 && !isMuchTooLarge) {
        std::memmove(bytes_.get(), bytes_.get() + first_, kept);
    } else {
        std::size_t const capacity = std::max(kReadSize, std::min(2 * kept, least));
        std::unique_ptr<unsigned char[]> other(new unsigned char[capacity]);
        if (kept != 0) {
            std::memcpy(other.get(), bytes_.get() + first_, kept);
        }
        bytes_ = std::move(other);
        capacity_ = capacity;
    }
    first_ = 0;
    end_ = kept;
}

std::span<unsigned char const> FileBytes::Peek(std::size_t least) {
    while (end_ - first_ < least) {
        // Grows as bytes arrive: a size in a bad record takes no memory that the file does not fill.
        if (end_ == capacity_ || (first_ != 0 && first_ + least > capacity_)) {
            Reserve(least);
        }
        ssize_t got =
            isPipe_ ? -1 : ::pread(descriptor_, bytes_.get() + end_, capacity_ - end_, static_cast<off_t>(offset_));
        if (isPipe_ || (got < 0 && errno == ESPIPE)) {
            isPipe_ = true;
            got = ::read(descriptor_, bytes_.get() + end_, capacity_ - end_);
        }
        if (got < 0) {
            ThrowErrno(path_);
        }
        if (got == 0) {
            break;
        }
        end_ += static_cast<std::size_t>(got);
        offset_ += static_cast<std::uint64_t>(got);
    }
    return {bytes_.get() + first_, end_ - first_};
}

} // namespace crrecord::python::columns
