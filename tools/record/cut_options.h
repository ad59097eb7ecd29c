// The options of the command for cutting a file.

#pragma once

#include "record/cut.h"

#include <CLI/CLI.hpp>

namespace crrecord::tool {

// Reads an option's text as a number of bytes, with or without a unit. CLI11's AsSizeValue reads "010" as 8, and its
// messages name no limits.
CLI::Validator NumberOfBytes(std::uint64_t least, std::uint64_t most);

// `mostBytes` is the largest segment size.
void AddCutOptions(CLI::App& verb, CutOptions& options, unsigned int mostBytes = CutOptions::kMost32);

} // namespace crrecord::tool
