// What the shared library exports: whatever is marked CRRECORD_API. Everything else in it is hidden; CRRECORD_LOCAL
// hides a member of an exported class.

#pragma once

#define CRRECORD_API __attribute__((visibility("default")))
#define CRRECORD_LOCAL __attribute__((visibility("hidden")))
