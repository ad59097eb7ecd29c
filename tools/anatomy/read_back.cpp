#include "anatomy/read_back.h"

#include "io/failure.h"
#include "io/line_reader.h"

#include <array>
#include <charconv>
#include <vector>

#include <fmt/format.h>

namespace crrecord::tool {

namespace {

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

constexpr std::size_t kLongestLine = 64UL * 1024;

class Reader {
public:
    Reader(Input& text, OutputFile& to) : name_(text.Name()), to_(to), lines_(text, kLongestLine) {}

    std::uint64_t Read() {
        while (std::optional<std::string_view> const next = lines_.Next()) {
            std::string_view line = *next;
            if (line.size() > kLongestLine) {
                throw InputFailure(
                    fmt::format("{}: line {} has more than {} bytes", name_, lines_.Number(), kLongestLine));
            }
            line.remove_suffix(line.ends_with('\r') ? 1 : 0);
            if (!line.empty() && std::string_view("#! ").find(line.front()) == std::string_view::npos) {
                ReadBytes(ReadOffset(line));
            }
        }
        if (at_ == 0) {
            throw BadText(Printable(name_) +
                          ": has no bytes, expected lines of an offset and bytes as annotate writes them");
        }
        return at_;
    }

private:
    // Returns: the text after the offset.
    std::string_view ReadOffset(std::string_view line) const {
        std::uint64_t offset = 0;
        char const* const end = line.data() + line.size();
        auto const [stop, error] = std::from_chars(line.data(), end, offset, 16);
        std::string_view const rest(stop, static_cast<std::size_t>(end - stop));
        if (error != std::errc() || !rest.starts_with("  ")) {
            Refuse("expected an offset of hexadecimal digits and two blanks", line);
        }
        if (offset != at_) {
            Refuse(fmt::format("expected the offset {:08x}, the end of the line before", at_), line);
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
                Refuse("expected bytes of two hexadecimal digits, with one blank between them and two after the last",
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
    OutputFile& to_;
    LineReader lines_;
    std::uint64_t at_ = 0;
    std::vector<unsigned char> bytes_;
};

} // namespace

std::uint64_t ReadBack(Input& text, OutputFile& to) {
    return Reader(text, to).Read();
}

} // namespace crrecord::tool
