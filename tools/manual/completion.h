// What the shell offers behind the command's name, from the same description as its help.

#pragma once

#include <string>

#include <CLI/CLI.hpp>

namespace crrecord::tool {

// A script for bash.
std::string BashCompletion(CLI::App const& app);

} // namespace crrecord::tool
