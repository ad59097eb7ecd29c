// A file's bytes in memory, without copying them there.

#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace crrecord::tool {

// Maps a whole file. The bytes may be changed; the file stays as it is. Where the file turns out shorter, or its disk
// fails, while the bytes are used, the command says so and ends with status 2.
class Mapping {
public:
    // Where the system can't map the file, Bytes() is empty.
    Mapping(int file, std::uint64_t size, std::string name);
    ~Mapping();
    Mapping(Mapping const&) = delete;
    Mapping& operator=(Mapping const&) = delete;

    std::span<unsigned char> Bytes() const { return bytes_; }

    // The bytes in front of `position` are no longer needed, those behind it will be soon. Keeps the memory in use
    // small however large the file is. What is dropped loses its changes.
    void MoveTo(std::uint64_t position);
    // Distance at which it pays to call MoveTo.
    static constexpr std::uint64_t kWindow = 4UL * 1024 * 1024;

private:
    friend struct MappingFault;

    std::span<unsigned char> bytes_;
    std::string name_;
    std::uint64_t dropped_ = 0;
    std::uint64_t populated_ = 0;
    Mapping* next_ = nullptr; // another one that is in use
};

} // namespace crrecord::tool
