#include "support/other_library.h"

Cr_TRef* OtherLibraryMakes(unsigned long taskId) {
    return new Cr_TRef(taskId);
}

void OtherLibraryReleases(Cr_TRef* handle) {
    boost::intrusive_ptr<Cr_TRef>(handle).reset();
}
