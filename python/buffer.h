// A caller's bytes, used where they lie.

#pragma once

#include "bindings.h"

#include <memory>
#include <optional>

namespace crrecord::python {

// Any object with the buffer protocol, pinned: its bytes neither move nor go while this exists. Needs the GIL to be
// made and to go.
class PinnedBuffer {
public:
    // Raises what the object raises, mostly BufferError, where it has no contiguous bytes to read.
    explicit PinnedBuffer(py::handle object);
    ~PinnedBuffer() { PyBuffer_Release(&buffer_); }
    PinnedBuffer(PinnedBuffer const&) = delete;
    PinnedBuffer& operator=(PinnedBuffer const&) = delete;

    // Never null.
    unsigned char const* Data() const noexcept;
    unsigned long Size() const noexcept { return static_cast<unsigned long>(buffer_.len); }
    // No Python code can write into it.
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

// Runs work on such bytes that calls nothing of Python. Other threads run meanwhile where they can't change the bytes:
// what is validated has to stay as it was judged until it is used.
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
