#include "support/clock.h"

#include <ctime>

extern "C" std::time_t time(std::time_t* result) noexcept {
    auto const now = static_cast<std::time_t>(test_clock::now);
    if (result) {
        *result = now;
    }
    return now;
}
