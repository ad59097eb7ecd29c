// SVG pictures.

#pragma once

#include "io/append_formatted.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace crrecord::tool {

// A picture that grows downwards: new parts are drawn below the others.
class Picture {
public:
    static constexpr double kWidth = 1000;
    static constexpr double kMargin = 20;
    static constexpr double kInner = kWidth - 2 * kMargin;

    template <class... Values>
    void Print(fmt::format_string<Values...> format, Values&&... values) {
        AppendFormatted<Values...>(body_, format, std::forward<Values>(values)...);
    }

    // `style` is a class of the style sheet, or "". The text is escaped here.
    void Text(double x, double y, std::string_view style, std::string_view text);

    // The first free line.
    double Top() const { return top_; }
    void MoveDown(double by) { top_ += by; }

    // Returns: the whole picture. `name` is its accessible name.
    std::string Finish(std::string_view name) const;

private:
    fmt::memory_buffer body_;
    double top_ = kMargin;
};

// Escapes character data and attributes. Unsafe characters, U+FFFE and U+FFFF become '?'; each byte that is not UTF-8
// becomes U+FFFD.
std::string XmlEscaped(std::string_view text);

// "1 234 567", with no-break spaces.
std::string Grouped(std::uint64_t number);

// "1 segment", "2 000 segments".
std::string GroupedCount(std::uint64_t number, std::string_view noun);

// Returns: the approximate width of a text. Fonts differ.
constexpr double TextWidth(std::size_t characters) noexcept {
    return 6.2 * static_cast<double>(characters);
}

} // namespace crrecord::tool
