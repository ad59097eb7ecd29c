// Unique DCID lists and typed references.

#include "sides.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <numeric>
#include <random>
#include <set>

namespace bench {

namespace {

template <class Map>
Comparison UniqueListAgainst(Shape shape, unsigned int n) {
    auto const input = std::make_shared<Input const>(shape, n, Containers::AtRandom);
    return {OurUniqueList(input), {[input] {
                Map sizes;
                unsigned char const* size = input->entries.data() + input->fingerprintSize;
                for (unsigned long const dcid : input->dcids) {
                    sizes[dcid] += LoadAt<unsigned int>(size);
                    size += input->stride;
                }
                benchmark::DoNotOptimize(sizes.size());
            }}};
}

std::shared_ptr<DORecord> RecordForReferences(Shape shape) {
    return Input(shape, 1).MakeRecord();
}

using Ids = std::vector<unsigned long>;

// Each run uses another order of the ids. The branch predictor would learn a repeated order in a small set.
template <class MakeSide>
Side InNewOrders(unsigned int n, MakeSide makeSide) {
    auto const ids = std::make_shared<Ids>(ShuffledNumbers(n));
    auto const random = std::make_shared<std::mt19937_64>(n);
    Side side = makeSide(std::shared_ptr<Ids const>(ids));
    side.makeReady = [ids, random, former = side.makeReady] {
        std::shuffle(ids->begin(), ids->end(), *random);
        if (former) {
            former();
        }
    };
    return side;
}

void AddAll(DORecord& record, Ids const& ids) {
    for (unsigned long const id : ids) {
        Require(record.AddTaskID(id) == 0, "a task id that was there");
    }
}

constexpr std::size_t kSerialized = 10; // bytes of a task id

template <class Ids>
void SerializeTaskIds(Ids const& ids, char* to) {
    for (std::uint64_t const id : ids) {
        std::uint64_t const payload = __builtin_bswap64(id);
        to[0] = CR_REFTYPE_TASKID;
        to[1] = sizeof payload;
        std::memcpy(to + 2, &payload, sizeof payload);
        to += kSerialized;
    }
    benchmark::ClobberMemory();
}

// Sorted, as GetSerializedTRefs returns them.
std::shared_ptr<std::vector<char>> SerializedTaskIds(unsigned int n) {
    auto const bytes = std::make_shared<std::vector<char>>(std::size_t{n} * kSerialized);
    Ids ids(n);
    std::iota(ids.begin(), ids.end(), 1);
    SerializeTaskIds(ids, bytes->data());
    return bytes;
}

// Each run fills a new set. The old one is released between runs.
template <class Set, class Fill>
Side FillSet(unsigned int n, Fill fill) {
    auto const set = std::make_shared<Set>();
    return {[set, fill] {
                fill(*set);
                benchmark::DoNotOptimize(set->size());
            },
            [set, n] {
                Require(set->size() == n, "a value is missing");
                *set = Set();
            }};
}

template <class Fill>
Side FillRecord(Shape shape, unsigned int n, Fill fill) {
    auto const record = std::make_shared<std::shared_ptr<DORecord>>(RecordForReferences(shape));
    return {[record, fill] { fill(**record); },
            [record, shape, n] {
                Require((*record)->GetNtaskid() == n, "a task id is missing");
                *record = RecordForReferences(shape);
            }};
}

template <class Set>
Comparison AddAgainst(Shape shape, unsigned int n) {
    return {InNewOrders(
                n, [=](auto ids) { return FillRecord(shape, n, [ids](DORecord& record) { AddAll(record, *ids); }); }),
            InNewOrders(n, [=](auto ids) {
                return FillSet<Set>(n, [ids](Set& set) {
                    for (unsigned long const id : *ids) {
                        set.insert(id);
                    }
                });
            })};
}

template <class Set>
Comparison LookUpAgainst(Shape shape, unsigned int n) {
    Ids const inserted = ShuffledNumbers(n);
    auto const record = RecordForReferences(shape);
    AddAll(*record, inserted);
    auto const set = std::make_shared<Set const>(inserted.begin(), inserted.end());
    auto const findAll = [n](auto has) {
        return InNewOrders(n, [has](auto ids) -> Side {
            return {[ids, has] {
                for (unsigned long const id : *ids) {
                    Require(has(id), "a task id is missing");
                }
            }};
        });
    };
    return {findAll([record](unsigned long id) { return record->HasTaskID(id); }),
            findAll([set](unsigned long id) { return set->find(id) != set->end(); })};
}

} // namespace

// A new list replaces the old one.
Side OurUniqueList(InputPtr const& input) {
    std::shared_ptr<DORecord> const record = input->MakeRecord();
    return {[record] { Require(record->AppendBloomAndUniqueDCIDList() == CR_STATUS_OK, "no unique list"); }};
}

Comparison UniqueListOfRuns(Shape shape, unsigned int n) {
    auto const input = std::make_shared<Input const>(shape, n);
    return {OurUniqueList(input), {[input] {
                unsigned long sum = 0;
                unsigned char const* size = input->entries.data() + input->fingerprintSize;
                for (unsigned long const dcid : input->dcids) {
                    sum += dcid + LoadAt<unsigned int>(size);
                    size += input->stride;
                }
                benchmark::DoNotOptimize(sum);
            }}};
}

Comparison UniqueListAtRandom(Shape shape, unsigned int n) {
    return UniqueListAgainst<std::map<std::uint64_t, std::uint64_t>>(shape, n);
}

Comparison AddTaskIds(Shape shape, unsigned int n) {
    return AddAgainst<std::set<std::uint64_t>>(shape, n);
}

Comparison LookUpTaskIds(Shape shape, unsigned int n) {
    return LookUpAgainst<std::set<std::uint64_t>>(shape, n);
}

Comparison AddSerialized(Shape shape, unsigned int n) {
    using Set = std::set<std::uint64_t>;
    auto const bytes = SerializedTaskIds(n);
    return {FillRecord(shape, n,
                       [bytes](DORecord& record) {
                           record.AddSerializedTRefs(bytes->data(), static_cast<unsigned int>(bytes->size()));
                       }),
            FillSet<Set>(n, [bytes](Set& set) {
                auto const* from = reinterpret_cast<unsigned char const*>(bytes->data());
                auto const* const end = from + bytes->size();
                for (; from != end; from += kSerialized) {
                    set.emplace_hint(set.end(), __builtin_bswap64(LoadAt<std::uint64_t>(from + 2)));
                }
            })};
}

// The reference writes the section from a set of numbers.
Comparison HeaderWithReferences(Shape shape, unsigned int n) {
    auto const section = SerializedTaskIds(n);
    auto const record = RecordForReferences(shape);
    record->AddSerializedTRefs(section->data(), static_cast<unsigned int>(section->size()));
    auto const ids = std::make_shared<std::set<std::uint64_t>>();
    for (std::uint64_t id = 1; id <= n; ++id) {
        ids->emplace_hint(ids->end(), id);
    }
    auto const written = std::make_shared<std::vector<char>>(section->size());
    Side const fromNumbers{[ids, written] { SerializeTaskIds(*ids, written->data()); }};
    fromNumbers.run();
    Require(*written == *section && record->GetSerializedTRefsSize() == section->size() &&
                std::memcmp(record->GetSerializedTRefs(), section->data(), section->size()) == 0,
            "another section");
    return {{[record] {
                benchmark::DoNotOptimize(record->GetHeader());
                benchmark::ClobberMemory();
            }},
            fromNumbers};
}

} // namespace bench
