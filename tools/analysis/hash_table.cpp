#include "analysis/hash_table.h"

#include <random>

namespace crrecord::tool {

namespace {

HashSeeds RandomSeeds() {
    std::random_device device;
    auto const seed = [&device] { return std::uint64_t{device()} << 32 | device() | 1; };
    return {seed(), seed(), seed()};
}

} // namespace

HashSeeds const kHashSeeds = RandomSeeds();

} // namespace crrecord::tool
