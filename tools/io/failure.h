// How the command ends, and how it complains.

#pragma once

#include "io/text.h"

#include <cerrno>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

namespace crrecord::tool {

// In rising order of weight: where several apply, the greatest counts.
enum class ExitCode : int {
    AllWell = 0,
    BadRecord = 1,
    CouldNotWork = 2,
};

// The tool cannot do its work. The text is what the user reads behind "crrecord: ".
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// One input cannot be read; others may be.
struct InputFailure : Failure {
    using Failure::Failure;
};

// "NAME: cannot WHAT: " and what errno says.
inline std::string ErrnoText(std::string_view name, std::string_view what) {
    std::string const reason = std::generic_category().message(errno);
    return std::string(name).append(": cannot ").append(what).append(": ").append(reason);
}

// Writes one line to standard error, behind "crrecord: ".
void Complain(std::string_view text);

} // namespace crrecord::tool
