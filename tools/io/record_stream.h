// The records in a file or in standard input, one after the other.

#pragma once

#include "base/byteorder.h"
#include "io/input.h"
#include "io/progress.h"

#include <cstdlib>
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
    std::uint64_t size; // bytes present
    unsigned char* bytes;
    FormFacts form; // of an exchange form
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
// size and its counts give. If these disagree the record is bad. So that the records after it are not lost, it ends at
// the nearer end if another record starts there or the input ends there, and otherwise at the farther one. A record of
// unknown kind, or one that is cut short, is the last one. An empty input has one record of no bytes.
//
// An exchange form has no mark: if one is expected, it is the whole input.
//
// Memory: one record. A record that claims more bytes than the input has costs at most twice the bytes read plus one
// block. No other process can change these bytes, so the validated bytes are those that are used.
class RecordStream {
public:
    // With `form` the input is an exchange form.
    explicit RecordStream(std::string name, std::optional<FormFacts> form = std::nullopt);

    std::string const& Name() const { return input_.Name(); }

    // Returns: the next record, or null after the last one. Throws: InputFailure.
    Record* Next();
    // Continues a record of unknown kind: replaces the record that Next returned by the next block of bytes.
    // Returns: false at the end of the input.
    bool NextBlock();
    // For callers that stop before the end. Throws: InputFailure if a regular file changed since it was opened.
    void ThrowIfChanged() const { input_.ThrowIfChanged(); }
    // Returns: true if the current record is the last of the input. Its bytes may move.
    bool EndsHere();

    // Returns: true for an input of JSON: its first character that is not a blank is `{`, which starts no record. Must
    // be called before Next. Read the lines of such an input with NextLine, which returns null after the last line.
    bool IsJson();
    Line const* NextLine();

private:
    struct Free {
        void operator()(unsigned char* bytes) const { std::free(bytes); }
    };

    // Reads until `need` bytes of the current record are in the buffer or the input ends.
    // Returns: the bytes of the record in the buffer.
    std::uint64_t Fill(std::uint64_t need) {
        if (end_ - begin_ < need && !inputEnded_) {
            ReadOn(need);
        }
        return end_ - begin_;
    }
    void ReadOn(std::uint64_t need);
    void Reserve(std::uint64_t need);
    // Moves to the end of the current record.
    void Advance();
    inline void Frame();
    void FrameForm();
    std::uint64_t ChooseSize(std::uint64_t recorded, std::uint64_t counted, std::uint64_t least);
    bool IsBoundary(std::uint64_t position);

    Input input_;
    Progress progress_;
    std::optional<FormFacts> form_;
    std::unique_ptr<unsigned char, Free> buffer_;
    unsigned char* bytes_ = nullptr; // of the buffer
    std::uint64_t capacity_ = 0;
    std::uint64_t begin_ = 0;    // of the current record in the buffer
    std::uint64_t end_ = 0;      // of the bytes in the buffer
    std::uint64_t nextMark_ = 0; // of the progress
    bool inputEnded_ = false;
    bool last_ = false;
    Record record_{};
    Line line_{};
};

} // namespace crrecord::tool
