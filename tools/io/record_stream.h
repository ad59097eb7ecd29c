// Records that stand one behind the other in a file or in standard input.

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

// What must be told of an exchange form of a DO record, which carries no mark.
struct FormFacts {
    unsigned char dotype = 0;
    unsigned char fptype = 0;
    bool checksum = false; // its head has the checksum of its body
};

// One record as it was found. The bytes are the stream's, may be changed in place, and last until the next record is
// asked for.
struct Record {
    std::uint64_t number; // from 1
    std::uint64_t offset; // in its input
    Kind kind;
    Order order;        // as it was found; means nothing for exchange forms and unknown kinds
    bool endsTooEarly;  // the input ends within the record
    std::uint64_t size; // bytes that are there
    unsigned char* bytes;
    FormFacts form; // of an exchange form
};

// One line of an input, without its end. The text lasts until the next line is asked for.
struct Line {
    std::uint64_t number; // from 1
    std::uint64_t offset; // in its input
    std::string_view text;
    std::uint64_t readable; // bytes that may be read: those of the text, and what happens to lie behind it
};

char const* NameOf(Kind kind) noexcept;
char const* NameOf(Order order) noexcept;
char const* NameOfFingerprint(unsigned int fptype) noexcept;

// Finds the records' borders and order; whether a record is any good is for its validator. A record ends where its size
// and its counts say. Where they disagree the record is bad, but those behind it need not be lost: it ends at the
// nearer of both ends if another record begins there or the input ends there, and otherwise at the farther one. A
// record of unknown kind, or one that is cut short, is the last. An input without a byte has one record of no bytes.
//
// An exchange form says nothing of itself: where one is expected, it is all of the input.
//
// Memory: one record, and never more than twice the bytes that were really read beyond a first block, whatever a record
// claims. The bytes are in memory that no other process can change: what was validated is what is used.
class RecordStream {
public:
    // With `form` the input is an exchange form.
    explicit RecordStream(std::string name, std::optional<FormFacts> form = std::nullopt);

    std::string const& Name() const { return input_.Name(); }

    // The next record, or null behind the last. Throws InputFailure.
    Record* Next();
    // Goes on in a record of unknown kind, whose end nobody knows: the record that Next gave becomes the bytes behind
    // it, as many as a block has. False at the input's end.
    bool NextBlock();
    // For who stops before the end. Throws: InputFailure if a regular file changed since it was opened.
    void ThrowIfChanged() const { input_.ThrowIfChanged(); }
    // Whether the present record is the last of the input. Its bytes may move.
    bool EndsHere();

    // Whether the input is JSON, not records: its first character that is no blank is `{`, with which no record begins.
    // Before Next. Then NextLine gives its lines, in place of Next; null behind the last.
    bool IsJson();
    Line const* NextLine();

private:
    struct Free {
        void operator()(unsigned char* bytes) const { std::free(bytes); }
    };

    // Reads until `need` bytes of the current record are there or the input ends; says how many are.
    std::uint64_t Fill(std::uint64_t need) {
        if (end_ - begin_ < need && !inputEnded_) {
            ReadOn(need);
        }
        return end_ - begin_;
    }
    void ReadOn(std::uint64_t need);
    void Reserve(std::uint64_t need);
    // Goes to what follows the present record.
    void Advance();
    inline void Frame();
    void FrameForm();
    std::uint64_t ChooseSize(std::uint64_t recorded, std::uint64_t counted, std::uint64_t least);
    bool IsBorder(std::uint64_t position);

    Input input_;
    Progress progress_;
    std::optional<FormFacts> form_;
    std::unique_ptr<unsigned char, Free> buffer_;
    unsigned char* bytes_ = nullptr; // of the buffer
    std::uint64_t capacity_ = 0;
    std::uint64_t begin_ = 0;    // of the current record in the buffer
    std::uint64_t end_ = 0;      // of what was read into the buffer
    std::uint64_t nextMark_ = 0; // of the progress
    bool inputEnded_ = false;
    bool last_ = false;
    Record record_{};
    Line line_{};
};

} // namespace crrecord::tool
