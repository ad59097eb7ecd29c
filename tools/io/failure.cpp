#include "io/failure.h"

#include <algorithm>

#include <unistd.h>

namespace crrecord::tool {

void Complain(std::string_view text) {
    std::string const line = "crrecord: " + Printable(text) + "\n";
    // There is nowhere left to report that standard error is closed.
    [[maybe_unused]] ssize_t const written = ::write(STDERR_FILENO, line.data(), line.size());
}

std::string Printable(std::string_view text) {
    std::string shown(text);
    std::replace_if(
        shown.begin(), shown.end(), [](unsigned char byte) { return byte < 0x20 || byte == 0x7f; }, '?');
    return shown;
}

std::string Counted(unsigned long count, std::string_view noun) {
    return std::to_string(count).append(" ").append(noun).append(count == 1 ? "" : "s");
}

} // namespace crrecord::tool
