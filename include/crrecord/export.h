// Symbol visibility. The shared library exports what is marked CRRECORD_API and nothing else. CRRECORD_LOCAL hides a
// member of an exported class: it is not for callers.

#pragma once

#define CRRECORD_API __attribute__((visibility("default")))
#define CRRECORD_LOCAL __attribute__((visibility("hidden")))
