// Records of buffers and files, one after the other, for tables.

#pragma once

#include "buffer.h"
#include "columns/file_bytes.h"
#include "errors.h"

#include <crrecord/DORecordView.h>
#include <crrecord/SOmarshall.h>

#include <optional>
#include <span>
#include <string>
#include <vector>

namespace crrecord::python::columns {

// A buffer, or the path of a file if there is no buffer.
struct Source {
    SharedBuffer buffer;
    std::string path;
};

// A bad record, which raises crrecord.Error.
struct BadRecord {
    std::string record; // such as "source 0: record 17"; as bytes of the file system
    std::string reason;
    std::uint64_t position; // in its source
    std::vector<Found> findings;

    std::string Text() const { return record + " at byte " + std::to_string(position) + ": " + reason; }
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

    // Takes a step: reads the next record, or passes a bad record or the end of a source. A record is valid until the
    // next step.
    // Returns: the record, or null.
    // Throws: BadRecord, unless bad records are skipped, and the next step continues after it, or in the next source if
    // its end is unknown; ReadError, and the next step continues in the next source; Interrupted; std::bad_alloc.
    ReadRecord const* Step();
    bool IsAtEnd() const noexcept { return source_ == sources_->size(); }
    // Number of bad records so far.
    std::uint64_t Skipped() const noexcept { return skipped_; }

private:
    // Returns: at least `least` bytes from position_ on, fewer only at the end of the source.
    std::span<unsigned char const> Peek(std::size_t least);
    void Advance(std::size_t bytes) noexcept; // after a record
    void NextSource() noexcept;
    // Reads the record at the position. `size` becomes its bytes if its end is known, even if it throws.
    // Throws: a text, the reason, for a bad record.
    void Read(std::span<unsigned char const> head, std::size_t& size);
    void ReadSegment(std::span<unsigned char const> bytes);
    BadRecord Bad(std::string const& reason, std::size_t size);

    std::shared_ptr<std::vector<Source> const> sources_;
    Options options_;
    std::size_t source_ = 0;
    std::optional<FileBytes> file_;
    std::uint64_t position_ = 0;
    std::uint64_t number_ = 0;
    std::uint64_t skipped_ = 0;
    std::vector<unsigned char> copy_; // of a segment record
    ReadRecord record_;
};

} // namespace crrecord::python::columns
