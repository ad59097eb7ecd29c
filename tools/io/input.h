// Bytes from a file or from standard input.

#pragma once

#include "io/mapping.h"

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

class Input {
public:
    // Opens `name`; "-" is standard input. Throws InputFailure.
    explicit Input(std::string name);
    ~Input();
    Input(Input const&) = delete;
    Input& operator=(Input const&) = delete;

    // Reads what is there, at least one byte and at most `room`; 0 at the end. Throws InputFailure.
    std::size_t Read(std::span<unsigned char> room);

    // Steps over the hole that begins here, if one does, up to `most` bytes of it. No data: the input ends there, or
    // the hole goes on. Of standard input, and where the file system knows no holes, all is data.
    Extent NextExtent(std::uint64_t most = std::numeric_limits<std::uint64_t>::max()) const;

    // All of a named regular file, from its start; no bytes of anything else.
    Mapping Map() const { return Mapping(file_, name_ == "-" ? 0 : ExpectedSize(), name_); }

    std::string const& Name() const { return name_; }
    // Bytes of a regular file, 0 for anything else.
    std::uint64_t ExpectedSize() const;
    bool IsSameFileAs(std::string const& path) const;

private:
    std::string name_;
    int file_;
    struct stat facts_ {};
};

} // namespace crrecord::tool
