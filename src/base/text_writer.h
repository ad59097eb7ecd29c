// Writes text to output streams. Numbers are plain decimal and do not depend on the stream's flags, width, fill or
// locale. Allocates no memory.

#pragma once

#include <array>
#include <charconv>
#include <cstddef>
#include <ostream>
#include <string_view>

namespace crrecord {

// Collects text in a small buffer and writes it to the stream in blocks. Call Flush at the end: the destructor does
// not, because it could not report an exception of the stream.
class TextWriter {
public:
    explicit TextWriter(std::ostream& stream) noexcept : stream_(stream) {}
    TextWriter(TextWriter const&) = delete;
    TextWriter& operator=(TextWriter const&) = delete;

    TextWriter& Number(unsigned long value) {
        Reserve(kLongestNumber);
        char* const end = buffer_.data() + buffer_.size();
        used_ = static_cast<std::size_t>(std::to_chars(At(), end, value).ptr - buffer_.data());
        return *this;
    }

    TextWriter& Character(char character) {
        Reserve(1);
        buffer_[used_++] = character;
        return *this;
    }

    TextWriter& Text(std::string_view text) {
        for (char const character : text) {
            Character(character);
        }
        return *this;
    }

    // Leaves the stream's width at 0, as formatted output does.
    void Flush() {
        stream_.width(0);
        stream_.write(buffer_.data(), static_cast<std::streamsize>(used_));
        used_ = 0;
    }

private:
    static constexpr std::size_t kLongestNumber = 20;

    char* At() noexcept { return buffer_.data() + used_; }

    void Reserve(std::size_t count) {
        if (buffer_.size() - used_ < count) {
            Flush();
        }
    }

    std::ostream& stream_;
    std::size_t used_ = 0;
    std::array<char, 4096> buffer_;
};

} // namespace crrecord
