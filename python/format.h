// Formats of buffers, as in the struct module and PEP 3118.

#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace crrecord::python {

// A number in an element, or a run of bytes.
struct FormatField {
    bool isBytes; // of any type of one byte: numbers, characters, padding
    unsigned long position;
    unsigned long width;
    bool isUnsigned; // an unsigned integer
    bool isNetworkOrder;
    std::string name; // "" without one

    friend bool operator==(FormatField const&, FormatField const&) = default;
};

// Returns: the fields of an element, with adjacent bytes as one field; nothing for a format with other constructs, such
// as pointers or nested structures.
std::optional<std::vector<FormatField>> ParseFormat(std::string_view format);

} // namespace crrecord::python
