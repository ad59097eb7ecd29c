// Any bytes as a DO record, in both orders: validation answers, and where it passes, every operation is safe and says
// what the others say.

#include "use_everything.h"

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(unsigned char const* bytes, std::size_t size) {
    // Refusals are logged by the thousand.
    CRLogSetSink([](cr_log_level_t, cr_status_t, char const*, void*) {}, nullptr);
    for (unsigned int options = 0; options < 8; ++options) {
        if (DORecordHeaderValidate(bytes, static_cast<unsigned int>(size), options) != CR_STATUS_OK) {
            continue;
        }
        if (char const* const broken = UseEverything(bytes, size, options)) {
            std::fprintf(stderr, "does not hold with options %u: %s\n", options, broken);
            std::abort();
        }
    }
    return 0;
}
