// Formatted text at the end of a buffer.

#pragma once

#include <fmt/format.h>

namespace crrecord::tool {

void AppendValues(fmt::memory_buffer& to, fmt::string_view format, fmt::format_args values);

// fmt::format_to for a format that is not compiled. Each source that calls fmt::format_to so compiles all of fmt's
// formatting, three seconds of it; here that is compiled once.
template <class... Values>
void AppendFormatted(fmt::memory_buffer& to, fmt::format_string<Values...> format, Values&&... values) {
    AppendValues(to, format, fmt::make_format_args(values...));
}

} // namespace crrecord::tool
