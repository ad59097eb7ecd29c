// Buffered output that reports every error, and files that are replaced completely or not at all.

#pragma once

#include "io/append_formatted.h"
#include "io/replacement.h"
#include "io/text.h"

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <unistd.h>

namespace crrecord::tool {

// Collects output for a file descriptor, which belongs to the caller. Output that is not flushed is lost, because a
// destructor cannot report an error. On a terminal and on standard error, each byte of an unsafe character becomes '?',
// whichever function wrote it.
class Output {
public:
    Output(int file, std::string name)
        : file_(file), name_(std::move(name)), terminal_(::isatty(file) == 1), coloured_(TakesColours(file)) {}
    // A part of another output, which only its Flush writes to. A part that is not direct is flushed by nothing else.
    struct PartOf {
        Output& whole;
        bool isDirect;
    };
    // Thread safety: may be filled while other threads use the whole.
    explicit Output(PartOf of)
        : file_(of.whole.file_), terminal_(of.whole.terminal_), coloured_(of.whole.coloured_), whole_(&of.whole),
          full_(of.isDirect ? kFull : kNever) {}
    Output(Output const&) = delete;
    Output& operator=(Output const&) = delete;

    void Write(std::string_view bytes) {
        buffer_.append(bytes);
        FlushWhenFull();
    }

    template <class... Values>
    void Print(fmt::format_string<Values...> format, Values&&... values) {
        AppendFormatted<Values...>(buffer_, format, std::forward<Values>(values)...);
        FlushWhenFull();
    }

    bool IsTerminal() const { return terminal_; }

    // Writes the text, in a colour if the output is a terminal that takes colours.
    void Paint(std::string_view text, Colour colour);
    void PaintLine(std::string_view text, Colour colour) {
        Paint(text, colour);
        Write("\n");
    }

    // For text that is formatted in place. Call FlushWhenFull afterwards.
    fmt::memory_buffer& Buffer() { return buffer_; }

    void FlushWhenFull() {
        if (buffer_.size() >= full_) {
            Flush();
        }
    }

    // Throws: Failure if not everything could be written.
    void Flush() { FlushTo(Size()); }
    // Only the bytes before `position`, if they are not flushed yet. Throws: the same.
    void FlushTo(std::uint64_t position);
    // Only whole lines. Throws: the same.
    void FlushLines();

    // Returns: all bytes written so far.
    std::uint64_t Size() const { return flushed_ + buffer_.size(); }

private:
    static constexpr std::size_t kFull = 256UL * 1024;
    static constexpr std::size_t kWrittenAlone = 64UL * 1024; // a part that is not copied
    static constexpr std::size_t kNever = std::numeric_limits<std::size_t>::max();

    int file_;
    std::string name_;
    bool terminal_;
    bool coloured_;
    Output* whole_ = nullptr; // of a part
    std::size_t full_ = kFull;
    fmt::memory_buffer buffer_;
    std::size_t ready_ = 0; // bytes of the buffer without unsafe characters to replace
    std::uint64_t flushed_ = 0;

    void WriteToFile(std::size_t size);
    // Removes the first bytes of the buffer, which were flushed.
    void RemoveFlushed(std::size_t size);
    // Replaces unsafe characters of the output since the last call.
    void MakeReady();
    // Writes bytes that have no unsafe characters to replace.
    void WriteSequence(std::string_view sequence);
};

// While it lives, each message on standard error comes after the lines that were written to the output before it.
class OutputBeforeMessages {
public:
    explicit OutputBeforeMessages(Output& out);
    ~OutputBeforeMessages();
    OutputBeforeMessages(OutputBeforeMessages const&) = delete;
    OutputBeforeMessages& operator=(OutputBeforeMessages const&) = delete;
};

// The output file of a verb. A regular file is replaced only when its content is complete and on disk (Replacement): an
// error, a full disk or a signal leaves the former file. "-", devices and pipes are written directly.
class OutputFile {
public:
    // `inputs` are the files whose content is written: users who cannot read them cannot read a new file.
    OutputFile(std::string path, std::vector<std::string> const& inputs) : OutputFile(&inputs, std::move(path)) {}
    // For inputs that are not known yet: a new file is private until WidenFor.
    explicit OutputFile(std::string path) : OutputFile(nullptr, std::move(path)) {}
    ~OutputFile();
    OutputFile(OutputFile const&) = delete;
    OutputFile& operator=(OutputFile const&) = delete;

    void Write(void const* bytes, std::size_t size) { output_.Write({static_cast<char const*>(bytes), size}); }
    // For text that is formatted in place.
    Output& Text() { return output_; }
    // Gives a new file the mode for these readers of its content.
    void WidenFor(Readers const& readers);
    // Whether an open file with this status is the regular file that is written or replaced.
    bool IsFile(struct stat const& facts) const;

    // Writes the rest and replaces the former file.
    void Commit() { CommitAll({this}); }
    // Ends an output that is not complete: the former file is kept. A direct output receives everything so far.
    void Abandon();
    // The same as Commit for several files; null ones are ignored. They are complete and on disk before the first one
    // replaces its former file; the others follow at once, in this order, and no signal ends the process between them.
    static void CommitAll(std::initializer_list<OutputFile*> files);

private:
    std::string path_;
    std::optional<Replacement> replacement_; // of a regular file
    int file_;
    Output output_;

    OutputFile(std::vector<std::string> const* inputs, std::string path);
    int Open(std::vector<std::string> const* inputs);
    // Writes the rest.
    void Finish();
};

} // namespace crrecord::tool
