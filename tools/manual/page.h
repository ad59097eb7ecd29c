// The manual page of the command, or of one of its verbs, from the same description as its help.

#pragma once

#include <string>

#include <CLI/CLI.hpp>

namespace crrecord::tool {

// The verb with those that it is a part of: "crrecord segments build".
std::string FullName(CLI::App const& verb);

// Its page's file name without the section: "crrecord-segments-build".
std::string PageName(CLI::App const& verb);

// The page in the language of man(7).
std::string ManualPage(CLI::App const& verb);

// The verbs of a verb, in the order of its help.
std::vector<CLI::App const*> VerbsOf(CLI::App const& app);

} // namespace crrecord::tool
