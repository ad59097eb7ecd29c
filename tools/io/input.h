// Bytes from a file or from standard input.

#pragma once

#include "io/file_facts.h"

#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string>

#include <sys/stat.h>

namespace crrecord::tool {

// The next bytes of a file: a hole, which reads as zeros, and the data after it.
struct Extent {
    std::uint64_t hole = 0;
    std::uint64_t data = std::numeric_limits<std::uint64_t>::max();
};

// The size of a read. A block stays in a processor's cache while it is used.
inline constexpr std::uint64_t kReadBlock = 256UL * 1024;

class Input {
public:
    // Opens `name`; "-" is standard input. Throws InputFailure.
    explicit Input(std::string name);
    // Takes the open file `file`, which `name` is the name of. Throws InputFailure, also if `file` is -1, with the text
    // of errno.
    Input(std::string name, int file);
    // Opens the regular file `path`, which messages call `name`, and reads from `offset`. Throws InputFailure.
    Input(std::string name, std::string const& path, std::uint64_t offset);
    // Returns: the file `name` in the folder `folder`, opened with more `flags`, or -1. Opening a pipe does not wait.
    static int OpenIn(int folder, std::string const& name, int flags);
    ~Input();
    Input(Input const&) = delete;
    Input& operator=(Input const&) = delete;

    // Returns: the bytes read, at least 1; 0 at the end. A regular file ends at its size when it was opened, unless
    // that is 0, as for files in /proc. Throws: InputFailure; also at the end of a regular file that changed since it
    // was opened (ThrowIfChanged).
    std::size_t Read(std::span<unsigned char> buffer);

    // Returns: bytes read at `offset`, fewer than the buffer has only at the end. Does not change the position of Read.
    // Throws: InputFailure.
    std::size_t ReadAt(std::span<unsigned char> buffer, std::uint64_t offset) const;

    // Skips up to `most` bytes of a hole at the current position. Returns: the hole and the data after it; no data if
    // the input ends or the hole continues. Standard input, and files on a file system without holes, have only data.
    Extent NextExtent(std::uint64_t most = std::numeric_limits<std::uint64_t>::max()) const;

    // Returns: true if the file system reports a hole in a regular file. Must be called before Read.
    bool HasHole() const;

    std::string const& Name() const { return name_; }
    // Throws: InputFailure for another file.
    void ThrowIfNotRegular() const;
    struct stat const& Facts() const {
        return facts_;
    }
    // Excludes users who cannot read the input.
    void Restrict(Readers& readers) const { readers.Restrict(facts_, file_); }
    // Returns: the size of a regular file, 0 for other files.
    std::uint64_t ExpectedSize() const;
    // Returns: the bytes of a regular file that Read has not returned yet; std::nullopt for other files.
    std::optional<std::uint64_t> BytesLeft() const;
    // For callers that stop before the end. Throws: InputFailure if the size or modification time of a regular file
    // changed since its opening. A store through a shared mapping may change the time later.
    void ThrowIfChanged() const;

private:
    std::string name_;
    int file_;
    struct stat facts_ {};
};

} // namespace crrecord::tool
