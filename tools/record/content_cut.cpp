#include "record/content_cut.h"

#include <algorithm>
#include <array>
#include <bit>

namespace crrecord::tool {

namespace {

// One random number for each byte: the outputs of SplitMix64 (S. Vigna, https://prng.di.unimi.it/splitmix64.c) from
// seed 0. Another table would cut existing data elsewhere, so it never changes.
constexpr std::array<std::uint64_t, 256> kGear = [] {
    std::array<std::uint64_t, 256> gear{};
    std::uint64_t state = 0;
    for (std::uint64_t& number : gear) {
        state += 0x9e3779b97f4a7c15;
        std::uint64_t z = state;
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
        z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
        number = z ^ (z >> 31);
    }
    return gear;
}();

// `bits` ones below the highest bit, which is free for the shift of FirstZero. They depend on the last 40 bytes or
// more.
constexpr std::uint64_t MaskOf(int bits) noexcept {
    return ((std::uint64_t{1} << bits) - 1) << (63 - bits);
}

// Adds the bytes from `from` to `to` to the hash. Returns the position after the first byte at which all bits of the
// mask are zero, or 0 if there is none. The hash of one more byte is 2 * hash + gear; two bytes take one shift, and the
// test between them has a mask shifted by one.
std::uint64_t FirstZero(unsigned char const* bytes, std::uint64_t from, std::uint64_t to, std::uint64_t mask,
                        std::uint64_t& hash) noexcept {
    std::uint64_t h = hash;
    std::uint64_t i = from;
    for (; i + 1 < to; i += 2) {
        h = (h << 2) + (kGear[bytes[i]] << 1);
        if ((h & (mask << 1)) == 0) {
            return i + 1;
        }
        h += kGear[bytes[i + 1]];
        if ((h & mask) == 0) {
            return i + 2;
        }
    }
    if (i < to) {
        h = (h << 1) + kGear[bytes[i]];
        if ((h & mask) == 0) {
            return to;
        }
    }
    hash = h;
    return 0;
}

} // namespace

std::uint64_t FirstContentCut(unsigned char const* bytes, std::uint64_t size, ContentCut const& cut) noexcept {
    if (size <= cut.least) {
        return size;
    }
    // Rarer ends before the average, and more frequent ones after it, bring the sizes closer to the average.
    int const bits = static_cast<int>(std::bit_width(cut.average)) - 1;
    std::uint64_t const end = std::min<std::uint64_t>(size, cut.most);
    std::uint64_t const middle = std::min<std::uint64_t>(end, cut.average);
    std::uint64_t hash = 0;
    std::uint64_t found = FirstZero(bytes, cut.least, middle, MaskOf(bits + 2), hash);
    if (found == 0) {
        found = FirstZero(bytes, middle, end, MaskOf(bits - 2), hash);
    }
    return found != 0 ? found : end;
}

} // namespace crrecord::tool
