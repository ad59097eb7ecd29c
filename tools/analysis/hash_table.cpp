#include "analysis/hash_table.h"

#include "base/byteorder.h"

#include <random>

namespace crrecord::tool {

namespace {

struct Seeds {
    Seeds() {
        std::random_device device;
        for (std::uint64_t* const seed : {&first, &second, &third}) {
            *seed = std::uint64_t{device()} << 32 | device() | 1;
        }
    }
    std::uint64_t first, second, third;
};

Seeds const& TheSeeds() {
    static Seeds const seeds;
    return seeds;
}

// Every bit of the result depends on all bits of both numbers.
std::uint64_t Mix(std::uint64_t a, std::uint64_t b) noexcept {
    __extension__ using Product = unsigned __int128;
    Product const product = Product{a} * b;
    return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

} // namespace

std::uint64_t HashOfNumber(std::uint64_t number) {
    return Mix(number ^ TheSeeds().first, TheSeeds().second);
}

std::uint64_t HashOfSegment(unsigned char const* fingerprint, unsigned int width, std::uint64_t size) {
    Seeds const& seeds = TheSeeds();
    std::uint64_t hash = size ^ seeds.first;
    for (unsigned int at = 0; at < width; at += 16) {
        hash =
            Mix(Load<std::uint64_t>(fingerprint + at) ^ hash, Load<std::uint64_t>(fingerprint + at + 8) ^ seeds.third);
    }
    return Mix(hash, seeds.second);
}

} // namespace crrecord::tool
