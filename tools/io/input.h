// Bytes from a file or from standard input.

#pragma once

#include <cstdint>
#include <limits>
#include <span>
#include <string>

#include <sys/stat.h>

namespace crrecord::tool {

// What lies ahead in a file: a hole, which reads as zeros, and data behind it.
struct Extent {
    std::uint64_t hole = 0;
    std::uint64_t data = std::numeric_limits<std::uint64_t>::max();
};

// What is read at once: it stays in a processor's cache while it is worked on.
inline constexpr std::uint64_t kReadBlock = 256UL * 1024;

class Input {
public:
    // Opens `name`; "-" is standard input. Throws InputFailure.
    explicit Input(std::string name);
    ~Input();
    Input(Input const&) = delete;
    Input& operator=(Input const&) = delete;

    // Reads what is there, at least one byte and at most `room`; 0 at the end. A regular file ends at the size that it
    // had when it was opened, unless that was 0, which files of the kernel's own have.
    // Throws: InputFailure; also at the end of a regular file that changed since it was opened (ThrowIfChanged).
    std::size_t Read(std::span<unsigned char> room);

    // Steps over the hole that begins here, if one does, up to `most` bytes of it. No data: the input ends there, or
    // the hole goes on. Of standard input, and where the file system knows no holes, all is data.
    Extent NextExtent(std::uint64_t most = std::numeric_limits<std::uint64_t>::max()) const;

    std::string const& Name() const { return name_; }
    // Bytes of a regular file, 0 for anything else.
    std::uint64_t ExpectedSize() const;
    // For who stops before the end. Throws: InputFailure if a regular file's size or time of modification is not that
    // of its opening. A store through a shared mapping may not have moved the time yet.
    void ThrowIfChanged() const;

private:
    std::string name_;
    int file_;
    struct stat facts_ {};
};

} // namespace crrecord::tool
