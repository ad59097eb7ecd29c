// Allocations that fail on demand: malloc and its kin as this binary's objects call them, operator new of the whole
// process, and OpenSSL's. A failing one leaves errno alone, as an allocator may.

#pragma once

#include <crrecord/status.h>

#include <functional>

namespace fault {

struct Outcome {
    cr_status_t status;
    unsigned long attempts;   // allocations asked for
    unsigned long exceptions; // exception objects made for a throw
    long live;                // blocks allocated less blocks released
};

// Runs `attempt` with the allocation number `first` of this thread failing (0: none does) and, with `andRest`, all
// that follow. Compare outside of it: comparing allocates.
Outcome Run(std::function<cr_status_t()> const& attempt, unsigned long first, bool andRest = false);

// Runs `attempt` with its first allocation failing, then its second, until it gets through. Expects 22 from each run
// that met a failure, 0 from the last, and no block left behind by any. Returns the number of failures.
unsigned long FailEach(std::function<cr_status_t()> const& attempt);

} // namespace fault
