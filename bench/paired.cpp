// Runs each operation and its reference alternately and prints one table of their ratios.
//
//   paired [--quick] [--only TEXT] [--json FILE]
//
// Each row runs in a separate process, whose blocks all come from one heap that never shrinks. The ratio of a row is
// the median of the ratios of its rounds. A round is some runs of one side, then some of the other. For a record in
// memory it is one run of each, so that each finds the data of the other in the caches.

#include "operation.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <malloc.h>
#include <nlohmann/json.hpp>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace bench {

namespace {

constexpr unsigned int kInMemory = 100'000; // segments; fewer fit into the caches of a core
constexpr long kMoreRounds = 4;             // if a round is one short run
constexpr double kRounding = 0.005;         // ratios and targets are compared to two digits

struct Plan {
    int rounds = 15;
    double roundSeconds = 0.02; // per side, at least
    char const* only = "";
    char const* json = nullptr;
};

struct Result {
    bool good;
    bool skipped;
    int rounds;
    double ours; // seconds
    double reference;
    double ratio;
    double faults; // of ours, per run
    char complaint[128];
};

// All blocks come from one heap that never shrinks.
void SetUpAllocator() {
    // M_MMAP_THRESHOLD has an upper limit, which the buffers of a million segments exceed.
    mallopt(M_MMAP_MAX, 0);
    mallopt(M_TRIM_THRESHOLD, INT_MAX);
    mallopt(M_TOP_PAD, 1 << 30);
}

double Seconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

long PageFaults() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_minflt + usage.ru_majflt;
}

struct Measured {
    double seconds = 0;
    long faults = 0;
};

Measured Run(Side const& side, clockid_t clock, long times) {
    Measured sum;
    long const atOnce = side.makeReady ? 1 : times;
    for (long done = 0; done < times; done += atOnce) {
        long const faults = PageFaults();
        double const start = Seconds(clock);
        for (long i = 0; i < atOnce; ++i) {
            side.run();
        }
        sum.seconds += Seconds(clock) - start;
        sum.faults += PageFaults() - faults;
        if (side.makeReady) {
            side.makeReady();
        }
    }
    return sum;
}

// Returns: the number of runs that take `atLeast` seconds. Also warms up.
long Calibrate(Side const& side, clockid_t clock, double atLeast) {
    long times = 1;
    for (;;) {
        double const taken = Run(side, clock, times).seconds;
        if (taken >= atLeast / 2) {
            return std::max(1L, std::lround(std::ceil(static_cast<double>(times) * atLeast / taken)));
        }
        times *= 2;
    }
}

double Median(std::vector<double> values) {
    auto const middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

void Measure(Operation const& operation, unsigned int n, Plan const& plan, Result& result) {
    auto const [ours, reference, clock] = operation.prepare(operation.shape, n);
    bool const inMemory = n >= kInMemory;
    long const ourLeast = Calibrate(ours, clock, plan.roundSeconds);
    long const referenceLeast = Calibrate(reference, clock, plan.roundSeconds);
    long const ourTimes = inMemory ? 1 : ourLeast;
    long const referenceTimes = inMemory ? 1 : referenceLeast;
    long const more = inMemory ? std::clamp(std::min(ourLeast, referenceLeast), 1L, kMoreRounds) : 1;
    int const rounds = plan.rounds * static_cast<int>(more);
    std::vector<double> ourSeconds, referenceSeconds, ratios;
    long faults = 0;
    for (int round = 0; round < rounds; ++round) {
        Measured const a = Run(ours, clock, ourTimes);
        Measured const b = Run(reference, clock, referenceTimes);
        faults += a.faults;
        ourSeconds.push_back(a.seconds / static_cast<double>(ourTimes));
        referenceSeconds.push_back(b.seconds / static_cast<double>(referenceTimes));
        ratios.push_back(ourSeconds.back() / referenceSeconds.back());
    }
    result.rounds = rounds;
    result.ours = Median(ourSeconds);
    result.reference = Median(referenceSeconds);
    result.ratio = Median(ratios);
    result.faults = static_cast<double>(faults) / static_cast<double>(rounds * ourTimes);
    result.good = true;
}

Result MeasureInChild(Operation const& operation, unsigned int n, Plan const& plan) {
    void* const shared = mmap(nullptr, sizeof(Result), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    Require(shared != MAP_FAILED, "no memory");
    auto* const result = new (shared) Result{};
    std::strcpy(result->complaint, "it ended early");
    pid_t const child = fork();
    if (child == 0) {
        SetUpAllocator();
        try {
            Measure(operation, n, plan, *result);
        } catch (Skipped const& caught) {
            result->skipped = true;
            std::snprintf(result->complaint, sizeof result->complaint, "%s", caught.what());
        } catch (std::exception const& caught) {
            std::snprintf(result->complaint, sizeof result->complaint, "%s", caught.what());
        }
        _exit(0);
    }
    Require(child > 0 && waitpid(child, nullptr, 0) == child, "no process");
    Result const copy = *result;
    munmap(shared, sizeof(Result));
    return copy;
}

class Table {
public:
    explicit Table(Plan const& plan) : plan_(plan) {
        std::printf("%-33s  %-33s %9s %9s %9s %7s %7s %10s\n", "operation", "reference", "segments", "ours", "ref.",
                    "ratio", "target", "faults/op");
        std::printf("%87s %9s   (ns a segment)\n", "", "");
    }

    void Add(Operation const& operation, unsigned int n, double target) {
        if (target == kNotMeasured || !std::strstr(operation.name, plan_.only)) {
            return;
        }
        std::printf("%-33s  %-33s %9u ", operation.name, operation.reference, n);
        std::fflush(stdout);
        Result const result = MeasureInChild(operation, n, plan_);
        if (result.skipped) {
            std::printf("skipped: %s\n", result.complaint);
            return;
        }
        if (!result.good) {
            std::printf("FAILED: %s\n", result.complaint);
            ++failed_;
            return;
        }
        double const each = 1e9 / n;
        bool const missed = result.ratio >= target + kRounding;
        missed_ += missed;
        std::printf("%9.2f %9.2f %7.3f %7.2f %10.1f%s\n", result.ours * each, result.reference * each, result.ratio,
                    target, result.faults, missed ? "  MISSED" : "");
        json_.push_back({{"operation", operation.name},
                         {"segments", n},
                         {"state", "resident"},
                         {"reference", operation.reference},
                         {"ratio", result.ratio},
                         {"target", target},
                         {"rounds", result.rounds},
                         {"faults_per_op", result.faults}});
    }

    int Finish() const {
        std::printf("\n%zu rows, %d above their target, %d failed\n", json_.size(), missed_, failed_);
        if (plan_.json) {
            std::ofstream file(plan_.json);
            file << json_.dump(1) << '\n';
            Require(file.good(), "cannot write the results");
        }
        return failed_ == 0 ? 0 : 1;
    }

private:
    Plan const& plan_;
    nlohmann::json json_ = nlohmann::json::array();
    int missed_ = 0;
    int failed_ = 0;
};

} // namespace

} // namespace bench

int main(int argc, char** argv) {
    bench::Plan plan;
    for (int i = 1; i < argc; ++i) {
        std::string const option = argv[i];
        if (option == "--quick") {
            plan.rounds = 5;
            plan.roundSeconds = 0.005;
        } else if (option == "--only" && i + 1 < argc) {
            plan.only = argv[++i];
        } else if (option == "--json" && i + 1 < argc) {
            plan.json = argv[++i];
        } else {
            std::fprintf(stderr, "usage: %s [--quick] [--only TEXT] [--json FILE]\n", argv[0]);
            return 2;
        }
    }
    bench::Table table(plan);
    for (bench::Operation const& operation : bench::Operations()) {
        table.Add(operation, 1'000, operation.inCache);
        table.Add(operation, operation.many, operation.inMemory);
    }
    return table.Finish();
}
