#include "io/append_formatted.h"

#include <iterator>

namespace crrecord::tool {

void AppendValues(fmt::memory_buffer& to, fmt::string_view format, fmt::format_args values) {
    fmt::vformat_to(std::back_inserter(to), format, values);
}

} // namespace crrecord::tool
