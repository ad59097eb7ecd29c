// A benchmark compares an operation of the library with a reference that does the same work or is its physical limit.

#pragma once

#include <functional>
#include <span>
#include <stdexcept>

#include <ctime>

namespace bench {

// One side of a comparison, with its inputs.
struct Side {
    std::function<void()> run;                                 // timed
    std::function<void()> makeReady = std::function<void()>(); // prepares the next run; not timed
};

struct Comparison {
    Side ours;
    Side reference;
    clockid_t clock = CLOCK_THREAD_CPUTIME_ID;
};

struct Shape {
    unsigned char dotype;
    unsigned char fptype;
};
inline constexpr Shape kMainShape{3, 3};

// In place of a target for the ratio of ours to the reference.
inline constexpr double kNotMeasured = -1;

struct Operation {
    char const* name;
    char const* reference;
    Comparison (*prepare)(Shape shape, unsigned int n);
    double inCache;  // n = 1,000
    double inMemory; // n = many
    Shape shape = kMainShape;
    unsigned int many = 1'000'000;
};

std::span<Operation const> Operations();

// A reference is not installed on this machine: the row is skipped.
struct Skipped : std::runtime_error {
    using runtime_error::runtime_error;
};

// Throws if an operation failed.
inline void Require(bool holds, char const* what) {
    if (!holds) {
        throw std::runtime_error(what);
    }
}

} // namespace bench
