// A page about a whole store, for browsers.

#pragma once

#include "io/output.h"
#include "store/liveness.h"
#include "store/scan.h"

namespace crrecord::tool {

// Writes one self-contained page: bytes live, unneeded and missing, containers by their needed part, those to compact
// first, and objects by their number of containers. It needs no network and no scripts. The scan is complete.
void WriteStorePage(Output& out, StoreScan& scan, unsigned int sparsePercent);

} // namespace crrecord::tool
