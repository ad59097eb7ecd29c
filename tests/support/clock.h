// The clock of the whole test process, as time() tells it. It stands still unless a test sets it.

#pragma once

namespace test_clock {

inline unsigned int now = 0xc1c2c3c4;

} // namespace test_clock
