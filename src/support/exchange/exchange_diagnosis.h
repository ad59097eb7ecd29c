// The checks of a received exchange form, for the validators and for the parser. Each reports what it finds.

#pragma once

#include "support/exchange/exchange_form.h"
#include "support/validate/finding_reporter.h"

namespace crrecord::exchange {

// Reads the counts and checks the head. If the pass has not stopped afterwards, the form has its calculated size.
void CheckHead(Form& form, FindingReporter& reporter) noexcept;

// These require a form that has its calculated size.
void CheckSeparator(Form const& form, FindingReporter& reporter) noexcept;
void CheckBloomBody(Form const& form, FindingReporter& reporter) noexcept;
void CheckBodyChecksum(Form const& form, FindingReporter& reporter) noexcept;

} // namespace crrecord::exchange
