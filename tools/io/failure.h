// Exit codes and error messages.

#pragma once

#include "io/text.h"

#include <crrecord/status.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

namespace crrecord::tool {

// In ascending order of severity. The command ends with the greatest that applies.
enum class ExitCode : int {
    AllWell = 0,
    BadRecord = 1,
    CouldNotWork = 2,
};

// The command cannot do its work. The text is printed after "crrecord: ".
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// One input cannot be read. Other inputs may be readable.
struct InputFailure : Failure {
    using Failure::Failure;
};

// "NAME: cannot WHAT: " and the text for errno.
inline std::string ErrnoText(std::string_view name, std::string_view what) {
    std::string const reason = std::generic_category().message(errno);
    return std::string(name).append(": cannot ").append(what).append(": ").append(reason);
}

// The library's message, or the text of its status if the message is empty.
inline std::string TextOf(Cr_ErrnoException const& error) {
    return *error.what() != '\0' ? error.what() : CRStatusToStringA(error.GetStatus());
}

// Writes "crrecord: ", the text and a line end to standard error.
void Complain(std::string_view text);

} // namespace crrecord::tool
