// Bytes from a file or from standard input.

#pragma once

#include <cstdint>
#include <span>
#include <string>

#include <sys/stat.h>

namespace crrecord::tool {

class Input {
public:
    // Opens `name`; "-" is standard input. Throws InputFailure.
    explicit Input(std::string name);
    ~Input();
    Input(Input const&) = delete;
    Input& operator=(Input const&) = delete;

    // Reads what is there, at least one byte and at most `room`; 0 at the end. Throws InputFailure.
    std::size_t Read(std::span<unsigned char> room);

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
