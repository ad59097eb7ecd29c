// The support layer under the records: fingerprints and findings.

#pragma once

#include <crrecord/finding.h>
#include <crrecord/fingerprint.h>
