// The clock of the whole test process: the result of time(). It is constant unless a test sets it.

#pragma once

namespace test_clock {

inline unsigned int now = 0xc1c2c3c4;

} // namespace test_clock
