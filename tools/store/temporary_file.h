// A file for data that does not fit memory.

#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace crrecord::tool {

// A file without a name: the system removes it when the process ends, however it ends. If the file system has no files
// without names, it has one for a moment in which no signal ends the process.
//
// Thread safety: any number of threads may read and write different bytes.
class TemporaryFile {
public:
    // Throws: Failure, here and below, with the folder's name and the system's reason.
    explicit TemporaryFile(std::string folder);
    ~TemporaryFile();
    TemporaryFile(TemporaryFile const&) = delete;
    TemporaryFile& operator=(TemporaryFile const&) = delete;

    void Write(std::span<unsigned char const> bytes, std::uint64_t at) const;
    // Reads exactly these bytes.
    void Read(std::span<unsigned char> bytes, std::uint64_t at) const;

private:
    std::string folder_;
    int file_;
};

} // namespace crrecord::tool
