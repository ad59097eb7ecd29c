#include "anatomy/read_back.h"

#include "io/failure.h"

#include <array>
#include <charconv>
#include <cstring>
#include <optional>
#include <vector>

#include <fmt/format.h>

namespace crrecord::tool {

namespace {

// No line of the text is nearly as long.
constexpr std::size_t kLongestLine = 64UL * 1024;
constexpr std::size_t kRoom = 4 * kLongestLine;

// Hands out the lines of an input, without their ends.
class Lines {
public:
    explicit Lines(Input& input) : input_(input), room_(kRoom) {}

    std::uint64_t Number() const { return number_; }

    // None at the end. A line that is too long comes in parts.
    std::optional<std::string_view> Next() {
        for (std::size_t searched = 0;;) {
            char const* const from = room_.data() + begin_;
            std::size_t const there = end_ - begin_;
            auto const* const end = static_cast<char const*>(std::memchr(from + searched, '\n', there - searched));
            if (end || ended_ || there >= kLongestLine) {
                return there == 0 ? std::nullopt : std::optional(Take(end ? end - from : there, end ? 1 : 0));
            }
            searched = there;
            Fill();
        }
    }

private:
    std::string_view Take(std::size_t size, std::size_t lineEnd) {
        std::string_view line(room_.data() + begin_, size);
        begin_ += size + lineEnd;
        ++number_;
        if (line.ends_with('\r')) {
            line.remove_suffix(1);
        }
        return line;
    }

    void Fill() {
        std::memmove(room_.data(), room_.data() + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
        std::size_t const count =
            input_.Read({reinterpret_cast<unsigned char*>(room_.data()) + end_, room_.size() - end_});
        end_ += count;
        ended_ = count == 0;
    }

    Input& input_;
    std::vector<char> room_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    std::uint64_t number_ = 0;
    bool ended_ = false;
};

constexpr unsigned char kNoDigit = 0xff;
constexpr auto kValues = [] {
    std::array<unsigned char, 256> table{};
    table.fill(kNoDigit);
    for (unsigned char i = 0; i < 10; ++i) {
        table['0' + i] = i;
    }
    for (unsigned char i = 0; i < 6; ++i) {
        table['a' + i] = table['A' + i] = static_cast<unsigned char>(10 + i);
    }
    return table;
}();

class Reader {
public:
    Reader(Input& text, OutputFile& to) : name_(text.Name()), lines_(text), to_(to) {}

    std::uint64_t Read() {
        while (auto const line = lines_.Next()) {
            if (line->size() >= kLongestLine) {
                Refuse(fmt::format("expected a line of less than {} bytes", kLongestLine), *line);
            }
            if (!line->empty() && std::string_view("#! ").find(line->front()) == std::string_view::npos) {
                ReadBytes(ReadOffset(*line));
            }
        }
        return at_;
    }

private:
    // What is behind the offset.
    std::string_view ReadOffset(std::string_view line) const {
        std::uint64_t offset = 0;
        char const* const end = line.data() + line.size();
        auto const [stop, error] = std::from_chars(line.data(), end, offset, 16);
        std::string_view const rest(stop, static_cast<std::size_t>(end - stop));
        if (error != std::errc() || !rest.starts_with("  ")) {
            Refuse("expected an offset of hexadecimal digits and two blanks", line);
        }
        if (offset != at_) {
            Refuse(fmt::format("expected the offset {:08x}, where the line in front of it ends", at_), line);
        }
        return rest.substr(2);
    }

    void ReadBytes(std::string_view text) {
        bytes_.clear();
        for (std::string_view rest = text;; rest.remove_prefix(3)) {
            unsigned char const high = rest.empty() ? kNoDigit : Value(rest[0]);
            unsigned char const low = rest.size() < 2 ? kNoDigit : Value(rest[1]);
            bool const ends = rest.size() <= 2 || rest.substr(2).starts_with("  ");
            if (high == kNoDigit || low == kNoDigit || (!ends && rest[2] != ' ')) {
                Refuse("expected bytes of two hexadecimal digits, with one blank between them and two behind the last",
                       rest);
            }
            bytes_.push_back(static_cast<unsigned char>(high << 4 | low));
            if (ends) {
                break;
            }
        }
        to_.Write(bytes_.data(), bytes_.size());
        at_ += bytes_.size();
    }

    static unsigned char Value(char digit) { return kValues[static_cast<unsigned char>(digit)]; }

    [[noreturn]] void Refuse(std::string_view expected, std::string_view found) const {
        throw BadText(fmt::format("{}: line {}: {}, found \"{}\"", Printable(name_), lines_.Number(), expected,
                                  Printable(found.substr(0, 20))));
    }

    std::string const& name_;
    Lines lines_;
    OutputFile& to_;
    std::uint64_t at_ = 0;
    std::vector<unsigned char> bytes_;
};

} // namespace

std::uint64_t ReadBack(Input& text, OutputFile& to) {
    return Reader(text, to).Read();
}

} // namespace crrecord::tool
