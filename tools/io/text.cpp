#include "io/text.h"

#include "base/hex.h"

#include <algorithm>
#include <array>
#include <cstdlib>

#include <fmt/compile.h>
#include <unistd.h>

namespace crrecord::tool {

void MakePrintable(std::span<char> lines) {
    char* at = lines.data();
    ForEachCharacter({lines.data(), lines.size()}, [&at](std::uint32_t character, std::string_view bytes) {
        if (IsUnsafe(character) && character != '\n') {
            std::fill_n(at, bytes.size(), '?');
        }
        at += bytes.size();
    });
}

std::string Printable(std::string_view text) {
    std::string shown(text);
    MakePrintable(shown);
    std::replace(shown.begin(), shown.end(), '\n', '?');
    return shown;
}

std::string JsonQuoted(std::string_view text) {
    std::string quoted = "\"";
    ForEachCharacter(text, [&quoted](std::uint32_t character, std::string_view bytes) {
        if (character == kNotUtf8) {
            quoted += "\uFFFD";
        } else if (IsUnsafe(character)) {
            quoted += fmt::format("\\u{:04x}", character);
        } else {
            quoted.append(character == '"' || character == '\\' ? "\\" : "").append(bytes);
        }
    });
    return quoted += '"';
}

std::string JsonName(std::string_view member, std::string_view name) {
    std::string value = JsonQuoted(name);
    bool isUtf8 = true;
    ForEachCharacter(name, [&](std::uint32_t character, std::string_view) { isUtf8 &= character != kNotUtf8; });
    if (!isUtf8) {
        fmt::memory_buffer hex;
        AppendHex(hex, {reinterpret_cast<unsigned char const*>(name.data()), name.size()});
        value += fmt::format(R"(,"{}_hex":"{}")", member, fmt::to_string(hex));
    }
    return value;
}

void AppendPadded(fmt::memory_buffer& to, std::string_view text, std::size_t width) {
    std::size_t const start = to.size();
    to.resize(start + std::max(text.size(), width));
    char* const end = std::copy(text.begin(), text.end(), to.data() + start);
    std::fill(end, to.data() + to.size(), ' ');
}

void AppendPadded(fmt::memory_buffer& to, std::uint64_t number, std::size_t width) {
    fmt::format_int const digits(number);
    AppendPadded(to, "", width - std::min(width, digits.size()));
    to.append(digits.data(), digits.data() + digits.size());
}

void AppendHex(fmt::memory_buffer& to, std::span<unsigned char const> bytes) {
    constexpr std::size_t kBlock = 16;
    for (; bytes.size() >= kBlock; bytes = bytes.subspan(kBlock)) {
        to.resize(to.size() + 2 * kBlock);
        HexEncode(bytes.data(), kBlock, to.data() + to.size() - 2 * kBlock);
    }
    for (unsigned char const byte : bytes) {
        fmt::format_to(std::back_inserter(to), FMT_COMPILE("{:02x}"), byte);
    }
}

std::string Counted(std::uint64_t count, std::string_view noun) {
    return std::to_string(count).append(" ").append(noun).append(count == 1 ? "" : "s");
}

std::string InUnits(std::uint64_t bytes) {
    constexpr std::array kUnits{"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024) {
        return Counted(bytes, "byte");
    }
    auto value = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    // A value that would be rounded to 1024.0 is shown as 1.0 of the next unit.
    for (; value >= 1023.95 && unit + 1 < kUnits.size(); ++unit) {
        value /= 1024;
    }
    return fmt::format("{:.1f} {}", value, kUnits[unit]);
}

std::string WithUnit(std::uint64_t bytes) {
    std::string const exact = Counted(bytes, "byte");
    std::string const rounded = InUnits(bytes);
    return rounded == exact ? exact : fmt::format("{} ({})", exact, rounded);
}

bool TakesSequences(int file) {
    char const* const terminal = std::getenv("TERM");
    std::string_view const type = terminal ? terminal : "";
    return ::isatty(file) == 1 && !type.empty() && type != "dumb";
}

bool TakesColours(int file) {
    char const* const refused = std::getenv("NO_COLOR");
    return TakesSequences(file) && (refused == nullptr || *refused == '\0');
}

} // namespace crrecord::tool
