// Common code of the fuzz targets. A target is one function over a buffer that aborts if a property does not hold.
// Under the preset `fuzz` it is a program with the engine of libFuzzer; otherwise replay.cpp finds it by its name.

#pragma once

#include <crrecord/finding.h>
#include <crrecord/status.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <vector>

namespace fuzz {

using Bytes = std::span<unsigned char const>;
using Block =
    std::vector<unsigned char>; // allocated in its exact size, so that AddressSanitizer detects reads past the end

// Drops the log, which would have a line for each of thousands of rejected inputs.
inline void BeSilent() {
    CRLogSetSink([](cr_log_level_t, cr_status_t, char const*, void*) {}, nullptr);
}

[[noreturn]] inline void Fail(char const* what) {
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
}

inline void Must(bool holds, char const* what) {
    if (!holds) {
        Fail(what);
    }
}

// Removes and returns the first byte; 0 if there is none.
inline unsigned char TakeByte(Bytes& bytes) {
    if (bytes.empty()) {
        return 0;
    }
    unsigned char const first = bytes.front();
    bytes = bytes.subspan(1);
    return first;
}

// Removes and returns a big-endian number of `width` bytes, at most 8.
inline unsigned long TakeNumber(Bytes& bytes, unsigned int width) {
    unsigned long number = 0;
    for (unsigned int i = 0; i < width; ++i) {
        number = number << 8 | TakeByte(bytes);
    }
    return number;
}

// Stops a diagnosing function at its first finding, then at its second, and so on. No finding may follow the stop.
template <class Diagnose>
void StopEverywhere(Diagnose diagnose) {
    constexpr unsigned long kMost = 16; // a record seldom has more findings
    struct Stop {
        unsigned long at, seen;
    };
    auto const listen = [](cr_finding_t const*, void* context) {
        auto& stop = *static_cast<Stop*>(context);
        return ++stop.seen != stop.at;
    };
    for (Stop stop{1, 0}; stop.at <= kMost; stop = {stop.at + 1, 0}) {
        diagnose(listen, &stop);
        Must(stop.seen <= stop.at, "no finding follows the stop");
        if (stop.seen < stop.at) {
            return;
        }
    }
}

// List of the targets in a program without an engine.
struct Target {
    char const* name;
    void (*run)(Bytes);
    Target const* next;

    static inline Target const* first = nullptr;
    Target(char const* itsName, void (*itsRun)(Bytes)) : name(itsName), run(itsRun), next(first) { first = this; }
};

} // namespace fuzz

#ifdef CRRECORD_FUZZ_ENGINE
#define CRRECORD_FUZZ_ENTRY(target)                                                                                    \
    extern "C" int LLVMFuzzerTestOneInput(unsigned char const* bytes, std::size_t size) {                              \
        fuzz::BeSilent();                                                                                              \
        Run_##target({bytes, size});                                                                                   \
        return 0;                                                                                                      \
    }
#else
#define CRRECORD_FUZZ_ENTRY(target) fuzz::Target const registered_##target(#target, Run_##target);
#endif

// FUZZ_TARGET(name, bytes) { ... }
#define FUZZ_TARGET(target, bytes)                                                                                     \
    static void Run_##target(fuzz::Bytes);                                                                             \
    CRRECORD_FUZZ_ENTRY(target)                                                                                        \
    static void Run_##target(fuzz::Bytes bytes)
