// The lines of a text, in memory that is bounded by the longest allowed line.

#pragma once

#include "io/input.h"
#include "io/progress.h"

#include <cstring>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace crrecord::tool {

class LineReader {
public:
    // `longest` is the size of the longest allowed line, without its end, the character `end`.
    LineReader(Input& text, std::size_t longest, char end = '\n')
        : text_(text), lineEnd_(end), progress_(text.Name(), text.ExpectedSize()), block_(longest + 1) {}

    // Returns: the next line without its end, or std::nullopt after the last line. Of a line that is too long: its
    // first `longest` + 1 bytes.
    // Throws: InputFailure.
    // Lifetime: until the next call.
    std::optional<std::string_view> Next() {
        if (Rest().find(lineEnd_) == std::string_view::npos) {
            Fill();
        }
        std::string_view const rest = Rest();
        if (rest.empty()) {
            return std::nullopt;
        }
        ++number_;
        std::string_view const line = rest.substr(0, rest.find(lineEnd_));
        begin_ += std::min(line.size() + 1, rest.size());
        return line;
    }

    std::uint64_t Number() const { return number_; }

private:
    std::string_view Rest() const { return {reinterpret_cast<char const*>(block_.data()) + begin_, end_ - begin_}; }

    // Moves the rest to the start of the block and reads until the block is full or the text ends.
    void Fill() {
        std::memmove(block_.data(), block_.data() + begin_, end_ - begin_);
        end_ -= std::exchange(begin_, 0);
        while (std::size_t const count = text_.Read(std::span(block_).subspan(end_))) {
            end_ += count;
            progress_.At(read_ += count);
        }
    }

    Input& text_;
    char lineEnd_;
    Progress progress_;
    std::vector<unsigned char> block_;
    std::size_t begin_ = 0; // of the rest in the block
    std::size_t end_ = 0;
    std::uint64_t read_ = 0;
    std::uint64_t number_ = 0; // of the last line, from 1
};

// Returns: the numbers of a text with one on each line. `what` is what a line should be, for the message.
// Throws: InputFailure for a file that cannot be read and for another line.
std::vector<std::uint64_t> ReadNumbers(std::string const& name, std::string_view what);

} // namespace crrecord::tool
