// Allocations that fail on demand: malloc and its kin as this binary's objects call them, operator new of the whole
// process, and OpenSSL's. A failing one leaves errno alone, as an allocator may.

#pragma once

#include <crrecord/status.h>

#include <functional>
#include <new>
#include <type_traits>

namespace fault {

struct Outcome {
    cr_status_t status;
    unsigned long attempts;   // attempted allocations
    unsigned long exceptions; // exception objects made for a throw
    long live;                // blocks allocated less blocks released
};

// Runs `attempt` with the allocation number `first` of this thread failing (0: none does) and, with `andRest`, all
// that follow. Compare outside of it: comparing allocates.
Outcome Run(std::function<cr_status_t()> const& attempt, unsigned long first, bool andRest = false);

// Runs `attempt` with its first allocation failing, then its second, until none fails. Expects 22 from each run with a
// failure, 0 from the last, and no leaked block. Returns: the number of failures.
unsigned long FailEach(std::function<cr_status_t()> const& attempt);

// Returns: the blocks allocated less those released by the process since its start.
long LiveOfAllThreads();

// Returns: the status that the call returned, threw, or set as the thread's last one.
template <class Call>
cr_status_t StatusOf(Call const& call) {
    *__cr_errno_location() = CR_STATUS_OK;
    try {
        if constexpr (std::is_same_v<std::invoke_result_t<Call>, cr_status_t>) {
            return call();
        } else {
            call();
            return *__cr_errno_location();
        }
    } catch (Cr_ErrnoException const& caught) {
        return caught.GetStatus();
    } catch (std::bad_alloc const&) {
        return CR_STATUS_NO_MEMORY;
    }
}

} // namespace fault
