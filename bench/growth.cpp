// Time and memory per segment, or per reference, as a table for plot.gp: operation, n, nanoseconds, bytes.
//
//   growth [--quick] >FILE        (--quick: no more than 100,000)
//
// The last two operations are the whole command, with the memory of its process in MiB.
//
// Memory is the peak of what an operation allocates, without the blocks that were allocated before it.

#include "sides.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <fstream>

#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::atomic<bool> counting;
std::atomic<long> held, peak;

void* Gained(void* block) {
    if (counting && block) {
        long const now = held += static_cast<long>(malloc_usable_size(block));
        peak = std::max(peak.load(), now);
    }
    return block;
}

void Lost(void* block) {
    if (counting && block) {
        held -= static_cast<long>(malloc_usable_size(block));
    }
}

} // namespace

// Replaces the allocator of the whole process by one that counts.
extern "C" {

void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);
void __libc_free(void*);

void* malloc(std::size_t size) {
    return Gained(__libc_malloc(size));
}

void* calloc(std::size_t count, std::size_t size) {
    return Gained(__libc_calloc(count, size));
}

void* realloc(void* block, std::size_t size) {
    Lost(block);
    return Gained(__libc_realloc(block, size));
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
    return Gained(__libc_memalign(alignment, size));
}

int posix_memalign(void** block, std::size_t alignment, std::size_t size) {
    *block = Gained(__libc_memalign(alignment, size));
    return *block ? 0 : 12;
}

void free(void* block) {
    Lost(block);
    __libc_free(block);
}
}

namespace bench {

namespace {

struct Curve {
    char const* name;
    Side (*prepare)(unsigned int n);
};

template <auto Prepare>
Side Ours(unsigned int n) {
    return Prepare(kMainShape, n).ours;
}

constexpr Curve kCurves[] = {
    {"Serialize with checksum", Ours<Serialize>},
    {"validate and parse a form", Ours<Parse>},
    {"build from segments", Ours<Build>},
    {"FromBuffer, network order", Ours<FromBuffer>},
    {"HostToNetwork, NetworkToHost", Ours<Convert>},
    {"GetDigest", Ours<Digest>},
    {"unique list, containers at random", Ours<UniqueListAtRandom>},
    {"AddTaskID, random order", Ours<AddTaskIds>},
    {"AddSerializedTRefs, sorted", Ours<AddSerialized>},
    {"GetHeader with references", Ours<HeaderWithReferences>},
};

double Seconds() {
    return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

long PeakOf(Side const& side) {
    held = peak = 0;
    counting = true;
    side.run();
    counting = false;
    return peak;
}

// The best of some rounds, so that other processes do not distort the curve. A long run needs one round.
double BestOf(Side const& side, unsigned int n) {
    long const runs = std::max(1L, 1'000'000L / n);
    int const rounds = n < 1'000'000 ? 5 : 1;
    double best = 1e9;
    for (int round = 0; round < rounds; ++round) {
        double seconds = 0;
        for (long run = 0; run < runs; ++run) {
            double const start = Seconds();
            side.run();
            seconds += Seconds() - start;
            if (side.makeReady) {
                side.makeReady();
            }
        }
        best = std::min(best, seconds / static_cast<double>(runs));
    }
    return best;
}

void PrintPoint(Curve const& curve, unsigned int n) {
    Side const side = curve.prepare(n);
    long const bytes = PeakOf(side);
    if (side.makeReady) {
        side.makeReady();
    }
    std::printf("%u %.3f %.3f\n", n, 1e9 * BestOf(side, n) / n, static_cast<double>(bytes) / n);
}

// The segments are tiny, so the time depends on their number, not on hashing. This process must stay small, since the
// kernel counts its memory towards the peak of its child, the command.
bool MeasureCommand(char const* verb, unsigned int n) {
    static constexpr char kInput[] = "growth-input", kRecord[] = "growth-record";
    std::string const thousand(64'000, 'x');
    bool good = true;
    try {
        std::ofstream file(kInput, std::ios::binary);
        for (unsigned int written = 0; written < n; written += 1'000) {
            file << thousand;
        }
        file.close();
        std::vector<std::string> const build = {"build", kInput, "--segment-size", "64", "-o", kRecord};
        std::vector<std::string> const other = {verb, kRecord};
        RunCommand(build);
        auto const start = std::chrono::steady_clock::now();
        long const peakBytes = RunCommand(verb == build[0] ? build : other);
        std::chrono::duration<double, std::nano> const taken = std::chrono::steady_clock::now() - start;
        std::printf("%u %.3f %.3f\n", n, taken.count() / n, static_cast<double>(peakBytes) / (1 << 20));
    } catch (std::exception const& caught) {
        std::fprintf(stderr, "crrecord %s, %u segments: %s\n", verb, n, caught.what());
        good = false;
    }
    std::remove(kInput);
    std::remove(kRecord);
    return good;
}

} // namespace

} // namespace bench

int main(int argc, char**) {
    unsigned int const largest = argc > 1 ? 100'000 : 10'000'000;
    bool good = true;
    for (bench::Curve const& curve : bench::kCurves) {
        std::printf("%s\"%s\"\n", &curve == bench::kCurves ? "" : "\n\n", curve.name);
        for (unsigned int n = 1'000; n <= largest; n *= 10) {
            std::fflush(stdout);
            // One process per point, so that no point uses the heap of another.
            pid_t const child = fork();
            if (child == 0) {
                bench::PrintPoint(curve, n);
                std::fflush(stdout);
                _exit(0);
            }
            int status = -1;
            good = child > 0 && waitpid(child, &status, 0) == child && status == 0 && good;
        }
    }
    for (char const* const verb : {"build", "validate"}) {
        std::printf("\n\n\"crrecord %s\"\n", verb);
        for (unsigned int n = 1'000; n <= largest; n *= 10) {
            good = bench::MeasureCommand(verb, n) && good;
        }
    }
    return good ? 0 : 1;
}
