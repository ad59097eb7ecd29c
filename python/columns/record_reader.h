// Records of buffers and files, one after the other, for tables.

#pragma once

#include "buffer.h"

#include <crrecord/DORecordView.h>
#include <crrecord/SOmarshall.h>

#include <cerrno>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace crrecord::python::columns {

// A buffer, or the path of a file if there is no buffer.
struct Source {
    SharedBuffer buffer;
    std::string path;
};

// A failure of reading: an errno for a file, EINVAL for a bad record.
class ReadError : public std::runtime_error {
public:
    ReadError(int errorNumber, std::string const& text) : std::runtime_error(text), number(errorNumber) {}
    int number;
};

// A bad record, which raises crrecord.Error.
class BadRecord : public ReadError {
public:
    BadRecord(std::string const& of, std::string const& why, std::uint64_t at)
        : ReadError(EINVAL, of + " at byte " + std::to_string(at) + ": " + why), record(of), reason(why), position(at) {
    }
    std::string record; // such as "source 0: record 17"
    std::string reason;
    std::uint64_t position; // in its source
};

// A valid record.
struct ReadRecord {
    std::uint64_t number = 0;   // from 0, of all sources
    std::uint64_t position = 0; // bytes from the start of its source
    std::uint32_t source = 0;   // from 0
    bool networkOrder = false;
    std::optional<DORecordView> object; // no value for a segment record
    _SegmentDBRecord segment{};         // the fixed part of a segment record, as host values
    unsigned char const* segmentBytes = nullptr;
};

// Reads records in order. If somebody changes a buffer meanwhile, values are wrong, but no access leaves the record.
// It calls no Python: any thread may use it, one at a time, with or without the GIL.
class RecordReader {
public:
    struct Options {
        bool skipsBad = false;
        bool subDO = false;
    };

    RecordReader(std::shared_ptr<std::vector<Source> const> sources, Options options)
        : sources_(std::move(sources)), options_(options) {}

    // Reads the next valid record, which is valid until the next call.
    // Returns: null at the end.
    // Throws: BadRecord, unless bad records are skipped, and the next call continues after it if its size is known;
    // ReadError; std::bad_alloc.
    ReadRecord const* Next();
    // Number of bad records so far.
    std::uint64_t Skipped() const noexcept { return skipped_; }

private:
    // Bytes of a file from some position on.
    class File {
    public:
        explicit File(std::string const& path);
        ~File();
        File(File const&) = delete;
        File& operator=(File const&) = delete;
        // Returns: at least `least` bytes from the position on, fewer only at the end of the file.
        std::span<unsigned char const> Peek(std::size_t least);
        void Drop(std::size_t bytes) noexcept { first_ += bytes; }

    private:
        std::string const& path_;
        int descriptor_;
        std::vector<unsigned char> bytes_;
        std::size_t first_ = 0; // of bytes_: the position
        std::size_t end_ = 0;
    };

    // Returns: at least `least` bytes from position_ on, fewer only at the end of the source.
    std::span<unsigned char const> Peek(std::size_t least);
    void Advance(std::size_t bytes) noexcept; // after a record
    void NextSource() noexcept;
    void ReadNext(std::span<unsigned char const> head, std::size_t& size);
    void ReadSegment(std::span<unsigned char const> bytes);
    std::size_t SizeOfDoubtful(std::size_t near, std::size_t far, std::size_t least);
    void PassBad(std::size_t size) noexcept;
    BadRecord Bad(std::string const& reason) const;

    std::shared_ptr<std::vector<Source> const> sources_;
    Options options_;
    std::size_t source_ = 0;
    std::optional<File> file_;
    std::uint64_t position_ = 0;
    std::uint64_t number_ = 0;
    std::uint64_t skipped_ = 0;
    std::vector<unsigned char> copy_; // of a segment record
    ReadRecord record_;
};

} // namespace crrecord::python::columns
