// The options of the command for cutting a file.

#pragma once

#include "record/cut.h"

#include <CLI/CLI.hpp>

namespace crrecord::tool {

// `mostBytes` is the largest segment size.
void AddCutOptions(CLI::App& verb, CutOptions& options, unsigned int mostBytes = CutOptions::kMost32);

} // namespace crrecord::tool
