// Buffers of Python objects, used in place.

#pragma once

#include "bindings.h"

#include <memory>
#include <optional>

namespace crrecord::python {

// Locks the buffer of an object: its bytes are neither moved nor released while this exists. Construction and
// destruction need the GIL.
class PinnedBuffer {
public:
    // Raises the exception of the object, mostly BufferError, if it has no contiguous bytes.
    explicit PinnedBuffer(py::handle object);
    ~PinnedBuffer() { PyBuffer_Release(&buffer_); }
    PinnedBuffer(PinnedBuffer const&) = delete;
    PinnedBuffer& operator=(PinnedBuffer const&) = delete;

    // Never null.
    unsigned char const* Data() const noexcept;
    unsigned long Size() const noexcept { return static_cast<unsigned long>(buffer_.len); }
    // The format of the elements, as in PEP 3118.
    char const* Format() const noexcept { return buffer_.format ? buffer_.format : "B"; }
    // True if no Python code can change the bytes.
    bool IsImmutable() const noexcept { return immutable_; }

private:
    Py_buffer buffer_;
    bool immutable_;
};

using SharedBuffer = std::shared_ptr<PinnedBuffer const>;

// Bytes inside a pinned buffer.
struct Slice {
    SharedBuffer owner;
    unsigned long position;
    unsigned long size;

    unsigned char const* Data() const noexcept { return owner->Data() + position; }
};

inline Slice PinWhole(py::handle object) {
    auto const owner = std::make_shared<PinnedBuffer const>(object);
    return {owner, 0, owner->Size()};
}

// Runs `work`, which must not call Python. Releases the GIL if the bytes are immutable and large. Other threads must
// not change bytes between their validation and their use.
template <class Work>
auto WithoutGil(Slice const& bytes, Work work) {
    constexpr unsigned long kWorthwhile = 64 * 1024;
    std::optional<py::gil_scoped_release> released;
    if (bytes.owner->IsImmutable() && bytes.size >= kWorthwhile) {
        released.emplace();
    }
    return work();
}

} // namespace crrecord::python
