// Text: safe characters, JSON strings, numbers with units.

#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include <boost/locale/utf.hpp>
#include <fmt/format.h>

namespace crrecord::tool {

// The value for a byte that is not part of a UTF-8 character.
inline constexpr std::uint32_t kNotUtf8 = boost::locale::utf::illegal;

// Calls use(character, bytes) for each character of UTF-8 text, and use(kNotUtf8, byte) for each other byte.
template <class Use>
void ForEachCharacter(std::string_view text, Use use) {
    while (!text.empty()) {
        char const* next = text.data();
        std::uint32_t character = boost::locale::utf::utf_traits<char>::decode(next, text.data() + text.size());
        auto size = static_cast<std::size_t>(next - text.data());
        if (!boost::locale::utf::is_valid_codepoint(character)) {
            character = kNotUtf8;
            size = 1;
        }
        use(character, text.substr(0, size));
        text.remove_prefix(size);
    }
}

// Returns: true for characters that may change the display of other text: control characters (C0, DEL and C1), line and
// paragraph separators, characters that set the direction of text, and kNotUtf8.
constexpr bool IsUnsafe(std::uint32_t character) noexcept {
    auto const isIn = [character](std::uint32_t first, std::uint32_t last) {
        return character >= first && character <= last;
    };
    return isIn(0, 0x1f) || isIn(0x7f, 0x9f) || character == 0x61c || isIn(0x200e, 0x200f) || isIn(0x2028, 0x202e) ||
           isIn(0x2066, 0x2069) || character == kNotUtf8;
}

// Replaces each byte of an unsafe character, except for line feeds, by '?'.
void MakePrintable(std::span<char> lines);

// The same for text on one line: line feeds become '?' too.
std::string Printable(std::string_view text);

// Returns: a JSON string with its quotes. Unsafe characters are escaped; each byte that is not UTF-8 becomes U+FFFD.
std::string JsonQuoted(std::string_view text);

// Returns: the value of a JSON member with a file name, and, if the name is not UTF-8, the member `member`_hex with its
// bytes as hexadecimal digits.
std::string JsonName(std::string_view member, std::string_view name);

// A 64-bit number in JSON, a string of decimal digits: many readers lose digits of large numbers. Without quotes after
// UseNumbers().
struct Decimal {
    std::uint64_t value;

    static void UseNumbers() { quote = ""; }

    inline static std::string_view quote = "\"";
};

// Append text that is padded with blanks on its right, and a number that is padded on its left.
void AppendPadded(fmt::memory_buffer& to, std::string_view text, std::size_t width);
void AppendPadded(fmt::memory_buffer& to, std::uint64_t number, std::size_t width);

// Appends two lower-case hexadecimal digits for each byte.
void AppendHex(fmt::memory_buffer& to, std::span<unsigned char const> bytes);

// "1 record", "2 records".
std::string Counted(std::uint64_t count, std::string_view noun);

// A number of bytes in the largest binary unit that fits: "512 bytes", "1.5 MiB".
std::string InUnits(std::uint64_t bytes);

// The exact number, and the number in a unit if it differs: "512 bytes", "1572864 bytes (1.5 MiB)".
std::string WithUnit(std::uint64_t bytes);

// Colours repeat information that is also in the text.
enum class Colour { Good, Warning, Bad, Heading };

// Returns: true if the file is a terminal that takes control sequences: TERM is neither empty nor "dumb".
bool TakesSequences(int file);

// Returns: true if output on this file may be coloured: it takes control sequences, and NO_COLOR is not set.
bool TakesColours(int file);

} // namespace crrecord::tool

template <>
struct fmt::formatter<crrecord::tool::Decimal> {
    constexpr auto parse(fmt::format_parse_context& context) { return context.begin(); }

    template <class Context>
    auto format(crrecord::tool::Decimal decimal, Context& context) const {
        fmt::format_int const digits(decimal.value);
        auto to = std::copy(decimal.quote.begin(), decimal.quote.end(), context.out());
        to = std::copy_n(digits.data(), digits.size(), to);
        return std::copy(decimal.quote.begin(), decimal.quote.end(), to);
    }
};
