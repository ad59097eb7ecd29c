// What every fuzz target is written with. A target is one function over some bytes, and says what does not hold. Under
// the preset `fuzz` it becomes a program with libFuzzer's engine; elsewhere replay.cpp finds it by its name.

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
using Block = std::vector<unsigned char>; // exactly as large as it is, for AddressSanitizer to see the end of

// A sink that drops everything: refusals are logged by the thousand.
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

// The first byte, and the bytes without it; 0 where there is none.
inline unsigned char TakeByte(Bytes& bytes) {
    if (bytes.empty()) {
        return 0;
    }
    unsigned char const first = bytes.front();
    bytes = bytes.subspan(1);
    return first;
}

// A number of up to eight bytes.
inline unsigned long TakeNumber(Bytes& bytes, unsigned int width) {
    unsigned long number = 0;
    for (unsigned int i = 0; i < width; ++i) {
        number = number << 8 | TakeByte(bytes);
    }
    return number;
}

// Stops a diagnosing pass at its first finding, then at its second, and so on: none comes behind the one that stops it.
template <class Diagnose>
void StopEverywhere(Diagnose diagnose) {
    constexpr unsigned long kMost = 16; // of one pass there are seldom more
    struct Stop {
        unsigned long at, seen;
    };
    auto const listen = [](cr_finding_t const*, void* context) {
        auto& stop = *static_cast<Stop*>(context);
        return ++stop.seen != stop.at;
    };
    for (Stop stop{1, 0}; stop.at <= kMost; stop = {stop.at + 1, 0}) {
        diagnose(listen, &stop);
        Must(stop.seen <= stop.at, "a pass that was stopped ends");
        if (stop.seen < stop.at) {
            return;
        }
    }
}

// Targets of a program without an engine.
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
