// The support layer under the records: fingerprints, findings, and the functions over bare DO record buffers.

#pragma once

#include <crrecord/DORecordHeader.h>
#include <crrecord/finding.h>
#include <crrecord/fingerprint.h>
