// The records in a file or in standard input, one after the other.

#pragma once

#include "base/byteorder.h"
#include "io/input.h"
#include "io/progress.h"

#include <cstdlib>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string_view>

namespace crrecord::tool {

enum class Kind { Segment, DataObject, Form, Unknown };

// The types of an exchange form of a DO record, which does not store them.
struct FormFacts {
    unsigned char dotype = 0;
    unsigned char fptype = 0;
    bool checksum = false; // the head has the checksum of the body
};

// One record as it was read. The bytes belong to the stream, may be changed in place, and are valid until the next
// record.
struct Record {
    std::uint64_t number; // from 1
    std::uint64_t offset; // in its input
    Kind kind;
    Order order;        // as it was read; undefined for exchange forms and unknown kinds
    bool endsTooEarly;  // the input ends within the record
    bool open;          // these are its first bytes, and NextBlock continues it
    std::uint64_t size; // bytes present
    unsigned char* bytes;
    FormFacts form; // of an exchange form
};

// Bytes of an input that are in no checked record.
struct Gap {
    std::uint64_t offset;
    std::optional<std::uint64_t> size; // std::nullopt if it is unknown
    bool isRest;                       // the rest of the input, which is not read
};

// Returns: "skipped bytes 6340 to 6763 (424)", or the message for the rest of the input.
std::string Describe(Gap const& gap);

class RecordStream;

// Some consecutive records of a file.
struct FilePart {
    std::string name; // for messages
    std::string path;
    std::uint64_t offset = 0;                                      // of the first record
    std::uint64_t number = 1;                                      // of the first record
    std::uint64_t end = std::numeric_limits<std::uint64_t>::max(); // no record starts here or later
    // Of the whole file when it was listed.
    std::uint64_t size = 0;
    std::int64_t modified = 0; // in nanoseconds
};

// The gaps of some inputs.
struct GapSums {
    std::uint64_t skipped = 0;
    std::optional<std::uint64_t> unread = 0; // std::nullopt for an unknown number

    // Call it after the last record of the input.
    void Add(RecordStream const& stream);
};

// One line of an input, without its end. The text is valid until the next line.
struct Line {
    std::uint64_t number; // from 1
    std::uint64_t offset; // in its input
    std::string_view text;
    std::uint64_t readable; // bytes that may be read: the text and any that follow it in memory
};

char const* NameOf(Kind kind) noexcept;
char const* NameOf(Order order) noexcept;
char const* NameOfFingerprint(unsigned int fptype) noexcept;

// Returns: "FILE: record 3 at byte 272", or with the name of the record, for messages.
std::string PlaceOf(std::string_view file, Record const& record);

// Converts the bytes of a valid record, which are in the order in which they were read, to `order`.
void ConvertRecord(Record const& record, Order order) noexcept;

// Finds the boundaries, kind and byte order of records. It does not validate them. A record ends at the end that its
// size and its counts give.
//
// If these disagree the record is bad. So that the records after it are not lost, it ends at the nearer end if another
// record starts there or the input ends there, and otherwise at the farther one. If the farther end is more than
// kReadBlock bytes away, the record is open: it has the bytes to the nearer end, or its fixed part if that is too far
// away as well, and the others are passed in blocks.
//
// A record of unknown kind, or one that is cut short, is the last one, unless the stream scans (ScanWith).
//
// An exchange form has no mark: if one is expected, it is the whole input. It is open if it exceeds the size that its
// counts give by more than kReadBlock bytes.
//
// Memory: one record whose size and counts agree. A record that claims more bytes than the input has costs at most
// twice the bytes read plus one block. No other process can change these bytes, so the validated bytes are those that
// are used.
class RecordStream {
public:
    static constexpr std::uint64_t kScanWork = 64;

    // With `form` the input is an exchange form.
    explicit RecordStream(std::string name, std::optional<FormFacts> form = std::nullopt);

    // A part of a regular file. A record that starts in it may end after it.
    // Throws: InputFailure, also for a file that changed since it was listed.
    explicit RecordStream(FilePart const& part);

    std::string const& Name() const { return input_.Name(); }

    // Returns: the next record, or null after the last one. Throws: InputFailure.
    Record* Next();
    // Continues an open record: replaces the record that Next returned by its next block, which is of unknown kind.
    // Returns: false at the end of the record.
    bool NextBlock();

    // Returns: true if the current record is a gap, or its start: the next call of Next reports it.
    bool IsInGap() const { return unfinished_; }

    // Searches for the next record after bytes that are no record, instead of ending there. Must be called before Next.
    //
    // Such bytes are a record of unknown kind, one that exceeds the input, one whose size and counts disagree and after
    // whose nearer end no record starts, and one that `isValid` rejects and after which no record starts. This record
    // is open. It ends before the first bytes with a known type whose size and counts agree and which `isValid`
    // accepts, or at the end of the input.
    //
    // Work: each byte is compared once. The bytes passed to `isValid`, or moved for it, are at most kScanWork times
    // those read: candidates beyond that are ignored.
    void ScanWith(bool (*isValid)(Record const& candidate)) { isValid_ = isValid; }
    bool Scans() const { return isValid_ != nullptr; }

    // Calls `report` for each gap, instead of printing a message.
    void ReportGapsTo(std::function<void(Gap const&)> report) { reportGap_ = std::move(report); }
    // After the last record, the sum of these three is the size of the input, or of the part.
    std::uint64_t BytesInRecords() const { return record_.offset - first_ - skipped_; }
    std::uint64_t SkippedBytes() const { return skipped_; }
    // Returns: the bytes not read; std::nullopt for an unknown number.
    std::optional<std::uint64_t> UnreadBytes() const { return unread_; }

    struct Free {
        void operator()(unsigned char* bytes) const { std::free(bytes); }
    };
    struct Buffer {
        std::unique_ptr<unsigned char, Free> bytes;
        std::uint64_t capacity = 0;
    };
    // Keeps the bytes of earlier records until they are released: calls `release` before it moves or overwrites them.
    // It must exchange the buffer, or end the use of these bytes.
    void ReleaseWith(std::function<void()> release) { release_ = std::move(release); }
    // Gives away the buffer with the bytes of earlier records, and continues in `buffer`. Call it only in `release`, or
    // after the last record. Returns: false without memory for the current bytes: nothing has changed.
    bool ExchangeBuffer(Buffer& buffer);

    // For callers that stop before the end. Throws: InputFailure if a regular file changed since it was opened.
    void ThrowIfChanged() const { input_.ThrowIfChanged(); }
    // Returns: true if the current record is the last of the input. Its bytes may move.
    bool EndsHere();

    // Returns: true for an input of JSON: its first character that is not a blank is `{`, which starts no record. Must
    // be called before Next. Read the lines of such an input with NextLine, which returns null after the last line.
    bool IsJson();
    Line const* NextLine();

private:
    // Reads until `need` bytes of the current record are in the buffer or the input ends.
    // Returns: the bytes of the record in the buffer.
    std::uint64_t Fill(std::uint64_t need) {
        if (end_ - begin_ < need && !inputEnded_) {
            ReadOn(need);
        }
        return end_ - begin_;
    }
    void ReadOn(std::uint64_t need);
    // Several smaller buffers, which two processors use, take the same part of their caches.
    std::uint64_t Block() const { return release_ ? kReadBlock / 2 : kReadBlock; }
    void Reserve(std::uint64_t need);
    // Moves to the end of the current record.
    void Advance();
    inline void Frame();
    void FrameForm();
    void FrameUnknown(std::uint64_t there, std::uint64_t headSize);
    void FrameDoubtful(std::uint64_t recorded, std::uint64_t counted, std::uint64_t headSize);
    void FrameWhole(std::uint64_t size);
    void Open(std::uint64_t size, std::uint64_t nearEnd, std::uint64_t farEnd);
    void OpenToNextRecord(std::uint64_t size);
    void FinishOpen();
    void ReportGap(Gap const& gap);
    bool IsBoundary(std::uint64_t position);
    std::uint64_t RestOfOpen();
    std::uint64_t Scan(std::uint64_t from, std::uint64_t to);
    bool IsValidAt(std::uint64_t position);
    bool Reach(std::uint64_t position, std::uint64_t size);

    Input input_;
    std::uint64_t first_ = 0;                                        // the offset at which the part starts
    std::uint64_t stop_ = std::numeric_limits<std::uint64_t>::max(); // no record starts here or later
    Progress progress_;
    std::optional<FormFacts> form_;
    Buffer buffer_;
    unsigned char* bytes_ = nullptr; // of the buffer
    std::function<void()> release_;
    std::uint64_t begin_ = 0;    // of the current record in the buffer
    std::uint64_t end_ = 0;      // of the bytes in the buffer
    std::uint64_t nextMark_ = 0; // of the progress
    bool inputEnded_ = false;
    bool last_ = false;
    Record record_{};
    Line line_{};

    bool (*isValid_)(Record const& candidate) = nullptr; // if the stream scans
    std::function<void(Gap const&)> reportGap_;
    // Of the open record, and of one that a scan has ended.
    bool unfinished_ = false;
    bool scanning_ = false; // it ends before the next record
    std::uint64_t start_ = 0;
    std::uint64_t nearEnd_ = 0;  // the offset at which it ends if a record starts there
    std::uint64_t farEnd_ = 0;   // the offset at which it ends otherwise
    std::uint64_t scanWork_ = 0; // bytes that candidates have cost
    std::uint64_t foundAt_ = 0;  // the offset of the last record that a scan found; 0 for none
    std::uint64_t skipped_ = 0;
    std::optional<std::uint64_t> unread_ = 0;
};

} // namespace crrecord::tool
