// The manual pages and the shell completion, from the same description as the command's help.

#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace crrecord::tool {

// The verbs of a verb, in the order of its help.
std::vector<CLI::App const*> VerbsOf(CLI::App const& app);

// The file name of a verb's page, without the section: "crrecord-segments-build".
std::string PageName(CLI::App const& verb);

// The page of the command or of a verb, in the language of man(7).
std::string ManualPage(CLI::App const& verb);

// The script for bash.
std::string BashCompletion(CLI::App const& app);

} // namespace crrecord::tool
