// What is measured: an operation of the library, and something else that does the same work or sets its limit.

#pragma once

#include <functional>
#include <span>
#include <stdexcept>

#include <ctime>

namespace bench {

// One side of a comparison, with inputs of its own.
struct Side {
    std::function<void()> run;                                 // what is timed
    std::function<void()> makeReady = std::function<void()>(); // makes the next run possible; not timed
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

// Targets for the ratio of ours to the reference.
inline constexpr double kNoTarget = 0;
inline constexpr double kNotMeasured = -1;

struct Operation {
    char const* name;
    char const* reference;
    Comparison (*prepare)(Shape shape, unsigned int n);
    double inCache;  // n = 1,000
    double resident; // n = many, blocks are used again
    double fresh;    // n = many, each large block is a new mapping
    Shape shape = kMainShape;
    unsigned int many = 1'000'000;
};

std::span<Operation const> Operations();

// An operation that fails is no result.
inline void Require(bool holds, char const* what) {
    if (!holds) {
        throw std::runtime_error(what);
    }
}

} // namespace bench
