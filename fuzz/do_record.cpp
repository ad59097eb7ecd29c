// Any bytes as a DO record, in both orders. If validation passes, every operation is safe and agrees with the others.

#include "target.h"
#include "use_everything.h"

FUZZ_TARGET(do_record, bytes) {
    for (unsigned int options = 0; options < 8; ++options) {
        fuzz::StopEverywhere([&](cr_finding_callback_t listen, void* context) {
            DORecordDiagnose(bytes.data(), bytes.size(), options, listen, context);
        });
        if (DORecordHeaderValidate(bytes.data(), static_cast<unsigned int>(bytes.size()), options) != CR_STATUS_OK) {
            continue;
        }
        if (char const* const broken = UseEverything(bytes.data(), bytes.size(), options)) {
            fuzz::Fail(broken);
        }
    }
}
