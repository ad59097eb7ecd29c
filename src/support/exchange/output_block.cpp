#include "support/exchange/output_block.h"

#include <cerrno>

namespace crrecord {

cr_status_t AllocateOutput(SerializerSite const& site, std::uint64_t size, std::uint64_t limit, void** out,
                           void* (*allocate)(std::uint64_t)) noexcept {
    // An allocator may fail without setting errno. ENOMEM replaces a stale value, which would be reported then.
    int const former = errno;
    errno = ENOMEM;
    *out = size <= limit ? allocate(size) : nullptr;
    if (*out) {
        errno = former;
        return CR_STATUS_OK;
    }
    cr_status_t const status = _crMapError(site.function, site.source, site.line);
    ErrorA(status, "Could not serialize %s: malloc failed for %lu bytes (%s)", site.record, size,
           CRStatusToStringA(status));
    return status;
}

} // namespace crrecord
