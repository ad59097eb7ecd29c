// A second shared library that makes handles of typed references and releases them.

#pragma once

#include <crrecord/tref.h>

Cr_TRef* OtherLibraryMakes(unsigned long taskId);
void OtherLibraryReleases(Cr_TRef* handle);
