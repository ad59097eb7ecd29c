// Merging of references and changes: against a model, and with hostile bytes.

#include "reference_changes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <random>

namespace {

using Reference = std::pair<int, unsigned long>; // kind and id

std::string BigEndian(unsigned long value, int size) {
    std::string bytes;
    while (size-- > 0) {
        bytes += static_cast<char>(value >> 8 * size);
    }
    return bytes;
}

// What is known of references: true for an added one, false for a removed one.
struct Model {
    unsigned int time = 0;
    std::map<Reference, bool> references;
    std::string undecoded;

    std::string Bytes(bool removals) const {
        std::string sections[2];
        for (auto const& [reference, added] : references) {
            int const size = reference.first == 4 ? 4 : 8;
            std::string const head = {static_cast<char>(reference.first), static_cast<char>(size)};
            sections[added ? 0 : 1] += added || removals ? head + BigEndian(reference.second, size) : "";
        }
        return "\1" + BigEndian(time, 4) + BigEndian(sections[0].size(), 8) + BigEndian(sections[1].size(), 8) +
               sections[0] + sections[1] + undecoded;
    }
};

// Calls use(changed) for each truncation of some bytes and for each change of one byte. The memory ends with the bytes.
template <class Use>
void ForEachDamage(std::string const& bytes, Use use) {
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        for (int by = 0; by < 256; ++by) { // 0 for the truncation
            std::size_t const size = by == 0 ? at : bytes.size();
            std::unique_ptr<char[]> const memory(new char[size]);
            std::copy_n(bytes.data(), size, memory.get());
            if (by != 0) {
                memory[at] = static_cast<char>(memory[at] ^ by);
            }
            use(std::string_view(memory.get(), size));
        }
    }
}

} // namespace

TEST(ReferenceChanges, MergeAsTheModelInAnyGrouping) {
    std::mt19937 random;
    for (int round = 0; round < 2000; ++round) {
        Model model;
        std::vector<std::string> merged; // as compactions may leave them
        for (int i = 0, count = 1 + static_cast<int>(random() % 6); i < count; ++i) {
            Model change;
            change.time = static_cast<unsigned int>(random());
            model.time = std::max(model.time, change.time);
            for (unsigned long n = random() % 4; n > 0; --n) {
                Reference const reference{std::array{0, 2, 4, 10}[random() % 4], ~(random() % 3UL) & 0xffffffff};
                change.references[reference] = model.references[reference] = random() % 2 != 0;
            }
            merged.push_back(change.Bytes(true));
            if (merged.size() > 1 && random() % 2 != 0) {
                std::string const last = merged.back();
                merged.pop_back();
                merged.back() = MergeChanges({merged.back(), last}, Removals::Keep);
            }
        }
        std::vector<std::string_view> const oldestFirst(merged.begin(), merged.end());
        EXPECT_EQ(MergeChanges(oldestFirst, Removals::Keep), model.Bytes(true));
        EXPECT_EQ(MergeChanges(oldestFirst, Removals::Drop), model.Bytes(false));
    }
}

TEST(ReferenceChanges, AddWhatOneChangeRemovesAndAdds) {
    std::string const task = "\2\10" + BigEndian(7, 8);
    std::string const change = "\1" + BigEndian(0, 4) + BigEndian(10, 8) + BigEndian(10, 8) + task + task;
    EXPECT_EQ(MergeChanges({change}, Removals::Keep), (Model{0, {{{2, 7}, true}}, ""}.Bytes(true)));
}

TEST(ReferenceChanges, KeepDamagedBytesAndMergeTheOthers) {
    std::string const kept = BigEndian(2, 4) + "xy";
    std::string const value = Model{5, {{{2, 7}, true}, {{4, 9}, true}}, ""}.Bytes(false);
    std::string const change = Model{9, {{{2, 8}, true}, {{4, 9}, false}}, kept}.Bytes(true);
    std::string const last = Model{7, {{{4, 9}, true}, {{2, 7}, false}}, kept}.Bytes(true);
    ForEachDamage(change, [&](std::string_view damaged) {
        ReferenceChanges decoded;
        std::string const merged = MergeChanges({value, damaged, last}, Removals::Drop);
        EXPECT_EQ(MergeChanges({value, MergeChanges({damaged, last}, Removals::Keep)}, Removals::Drop), merged);
        EXPECT_EQ(MergeChanges({merged}, Removals::Drop), merged);
        if (std::optional<DecodingFault> const fault = DecodeChanges(damaged, decoded)) {
            std::string const undecoded = BigEndian(damaged.size(), 4) + std::string(damaged) + kept;
            EXPECT_EQ(merged, (Model{7, {{{4, 9}, true}}, undecoded}.Bytes(false)));
            EXPECT_EQ(MergeChanges({damaged, last}, Removals::Drop), merged);
            EXPECT_LE(fault->offset, damaged.size());
        }
    });
}

TEST(ReferenceChanges, NameTheFirstFault) {
    std::string const change = Model{9, {{{2, 8}, true}, {{4, 9}, false}}, BigEndian(2, 4) + "xy"}.Bytes(true);
    std::tuple<std::size_t, char, std::size_t, std::string> const faults[] = {
        {0, 2, 0, "form 1"},
        {12, 100, 21, "as many bytes of references as the size says"},
        {21, 11, 21, "a reference"}, // kind 11
        {32, 8, 31, "a reference"},  // a DSID of 8 bytes
        {40, 3, 41, "the size of undecoded bytes, and the bytes"},
    };
    for (auto const& [at, value, offset, expected] : faults) {
        std::string damaged = change;
        damaged[at] = value;
        ReferenceChanges decoded;
        std::optional<DecodingFault> const fault = DecodeChanges(damaged, decoded);
        ASSERT_TRUE(fault) << at;
        EXPECT_EQ(fault->offset, offset) << at;
        EXPECT_EQ(fault->expected, expected) << at;
    }
}
