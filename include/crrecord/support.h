// The support layer under the records: fingerprints, findings, and the functions over bare DO record buffers. Includes
// these headers and declares nothing itself.

#pragma once

#include <crrecord/DORecordHeader.h>
#include <crrecord/finding.h>
#include <crrecord/fingerprint.h>
