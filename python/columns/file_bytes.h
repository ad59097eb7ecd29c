// The bytes of a file, read in pieces.

#pragma once

#include "columns/column.h"

#include <span>
#include <stdexcept>
#include <string>

namespace crrecord::python::columns {

// A failure of reading a file: its errno. what() is a text with the path.
class ReadError : public std::runtime_error {
public:
    ReadError(int errorNumber, std::string const& of);
    int number;
    std::string path;
};

// A signal has interrupted the operation, which had no effect and may be tried again.
struct Interrupted {};

// Bytes of a file from a position on. A process that fork() makes reads on by itself, unless the file is a pipe.
class FileBytes {
public:
    // Throws: ReadError; Interrupted.
    explicit FileBytes(std::string const& path);
    ~FileBytes();
    FileBytes(FileBytes const&) = delete;
    FileBytes& operator=(FileBytes const&) = delete;

    // Returns: at least `least` bytes from the position on, fewer only at the end of the file; valid until the next
    // call. Takes at most about one and a half times the memory of the bytes. Throws: ReadError; Interrupted;
    // std::bad_alloc.
    std::span<unsigned char const> Peek(std::size_t least);
    void Drop(std::size_t bytes) noexcept { first_ += bytes; }

private:
    void Reserve(std::size_t least);

    std::string path_;
    int descriptor_;
    bool isPipe_ = false;
    std::uint64_t offset_ = 0; // of the file: after the bytes that were read
    std::unique_ptr<unsigned char[]> bytes_;
    std::size_t capacity_ = 0;
    std::size_t first_ = 0; // of bytes_: the position
    std::size_t end_ = 0;
};

} // namespace crrecord::python::columns
