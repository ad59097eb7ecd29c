#include "io/failure.h"

#include "io/progress.h"

#include <unistd.h>

namespace crrecord::tool {

void Complain(std::string_view text) {
    Progress::Wipe();
    std::string const line = "crrecord: " + Printable(text) + "\n";
    // There is nowhere left to report that standard error is closed.
    [[maybe_unused]] ssize_t const written = ::write(STDERR_FILENO, line.data(), line.size());
}

} // namespace crrecord::tool
