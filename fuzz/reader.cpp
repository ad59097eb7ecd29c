// Any bytes as a DO record, a segment record and a section of references. The reader in one header and the library
// agree.

#include "reader_agrees.h"

#include <crrecord/tref.h>

FUZZ_TARGET(reader, bytes) {
    fuzz::Block given(bytes.begin(), bytes.end());
    given.shrink_to_fit();
    for (unsigned int options = 0; options < 16; ++options) {
        fuzz::AgreeOnDORecord(given, options);
        fuzz::AgreeOnSegmentRecord(given, options);
    }
    unsigned long at = 0, taken = 0;
    while (_cr_tref_t* reference =
               CRTRefNewDeserialize(given.data() + at, given.size() - at, CR_TREF_SERIALIZED, &taken)) {
        CRTRefDelete(&reference);
        at += taken;
    }
    crr_fault const fault = crr_references_fault(given.data(), 0, given.size());
    fuzz::Must(fault.code == 0
                   ? at == given.size()
                   : fault.code == CR_FINDING_DO_REFERENCE && fault.offset == at && fault.found == given[at],
               "both stop at the same reference");
}
