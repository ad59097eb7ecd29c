// Buffers of Python objects, used in place.

#pragma once

#include "bindings.h"

#include <exception>
#include <memory>
#include <optional>
#include <type_traits>

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
    PinnedBuffer() noexcept : buffer_{}, immutable_(false) {} // locks nothing

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

// Releases the GIL while it exists. At the exit of the interpreter the destructor ends a daemon thread by an exception
// of the C library, which pybind11's own class does not let pass.
class GilRelease {
public:
    GilRelease() : state_(PyEval_SaveThread()) {}
    ~GilRelease() noexcept(false) { PyEval_RestoreThread(state_); }
    GilRelease(GilRelease const&) = delete;
    GilRelease& operator=(GilRelease const&) = delete;

private:
    PyThreadState* state_;
};

// Runs `work`, which must not call Python, without the GIL. Its exception is thrown again with the GIL: an exception
// that passes the destructor of GilRelease would end the process.
template <class Work>
auto ReleasingGil(Work const& work) {
    constexpr bool isVoid = std::is_void_v<decltype(work())>;
    std::optional<std::conditional_t<isVoid, bool, decltype(work())>> result;
    std::exception_ptr failure;
    {
        GilRelease const released;
        try {
            if constexpr (isVoid) {
                work();
            } else {
                result.emplace(work());
            }
        } catch (...) {
            failure = std::current_exception();
        }
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
    if constexpr (!isVoid) {
        return *std::move(result);
    }
}

// Runs `work`, which must not call Python. Releases the GIL if the bytes are immutable and large. Other threads must
// not change bytes between their validation and their use.
template <class Work>
auto WithoutGil(Slice const& bytes, Work work) {
    constexpr unsigned long kWorthwhile = 64 * 1024;
    return bytes.owner->IsImmutable() && bytes.size >= kWorthwhile ? ReleasingGil(work) : work();
}

} // namespace crrecord::python
