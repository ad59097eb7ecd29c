// `crrecord live`, `recall` and `lost` on a store of many records in the page cache, compared with one pass over its
// bytes in memory, with `crrecord validate`, and with a database that has the entries in a table.

#include "peer_duckdb.h"
#include "sides.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <random>

#include <benchmark/benchmark.h>
#include <unistd.h>

namespace bench {

namespace {

namespace fs = std::filesystem;

constexpr unsigned int kInRecord = 1000;
constexpr unsigned int kInContainer = 512;
constexpr unsigned int kInRun = 50;
constexpr unsigned int kWidth = 32; // of a fingerprint
constexpr unsigned int kStride = kWidth + 12;

// Records of n entries in all. The second half has the segments of the first half in another order, in runs, as a
// backup shares parts of an earlier one.
class Store {
public:
    explicit Store(unsigned int n) {
        std::mt19937_64 random(n);
        std::vector<unsigned int> runs(n / 2 / kInRun);
        std::iota(runs.begin(), runs.end(), 0U);
        std::ofstream file(path, std::ios::binary);
        for (unsigned int i = 0; i < n; i += kInRecord) {
            if (i == n / 2) {
                std::shuffle(runs.begin(), runs.end(), random);
            }
            auto const record = RecordAt(i % (n / 2), runs);
            file.write(reinterpret_cast<char const*>(record.data()), static_cast<std::streamsize>(record.size()));
            bytes.insert(bytes.end(), record.begin(), record.end());
            recordSize = record.size();
        }
        Require(file.flush().good(), "the store can't be written");
    }
    ~Store() {
        std::error_code ignored;
        fs::remove(path, ignored);
    }

    // Calls use(record, dcid, fingerprint, size) for each entry.
    template <class Use>
    void ForEachEntry(Use use) const {
        for (std::size_t at = 0; at < bytes.size(); at += recordSize) {
            unsigned char const* const entries = bytes.data() + at + CR_DO_HEADER_SIZE;
            unsigned char const* const dcids = entries + kInRecord * kStride;
            for (unsigned int i = 0; i < kInRecord; ++i) {
                unsigned char const* const entry = entries + i * kStride;
                use(static_cast<unsigned int>(at / recordSize), LoadAt<unsigned long>(dcids + i * 8UL), entry,
                    LoadAt<unsigned int>(entry + kWidth));
            }
        }
    }

    std::string const path = CRRECORD_COMMAND "-store-" + std::to_string(::getpid());
    std::vector<unsigned char> bytes;
    std::size_t recordSize = 0;

private:
    static std::vector<unsigned char> RecordAt(unsigned int first, std::vector<unsigned int> const& runs) {
        std::vector<unsigned char> entries(kInRecord * kStride);
        std::vector<unsigned long> dcids(kInRecord);
        unsigned long offset = 0;
        for (unsigned int i = 0; i < kInRecord; ++i) {
            unsigned int const segment = runs[(first + i) / kInRun] * kInRun + (first + i) % kInRun;
            unsigned char* const entry = &entries[i * kStride];
            std::minstd_rand random(segment + 1);
            for (unsigned int word = 0; word < kWidth; word += 4) {
                auto const value = static_cast<unsigned int>(random()) * 2;
                std::memcpy(entry + word, &value, sizeof value);
            }
            std::memcpy(entry, &segment, sizeof segment); // no two are equal
            auto const size = static_cast<unsigned int>(random() % 131'072 + 1);
            std::memcpy(entry + kWidth, &size, sizeof size);
            std::memcpy(entry + kWidth + sizeof size, &offset, sizeof offset);
            offset += size;
            dcids[i] = CR_FIRST_FREE_DCID + segment / kInContainer;
        }
        DORecord record(CR_FIRST_FREE_DCID, offset, 131'072, 0, 1, 1, entries.data(), kInRecord, dcids.data(), nullptr,
                        kMainShape.fptype, kMainShape.dotype);
        return BytesOf(record);
    }
};

using StorePtr = std::shared_ptr<Store const>;

Side Verb(StorePtr const& store, std::vector<std::string> arguments) {
    arguments.push_back(store->path);
    return {[store, arguments] { RunCommand(arguments); }};
}

// A part of each entry and each container.
Side StridedPass(StorePtr const& store) {
    return {[store] {
        unsigned long sum = 0;
        store->ForEachEntry(
            [&sum](unsigned int, unsigned long dcid, unsigned char const*, unsigned int size) { sum += dcid + size; });
        benchmark::DoNotOptimize(sum);
    }};
}

Comparison LiveAgainstPass(unsigned int n, char const* memory) {
    auto const store = std::make_shared<Store const>(n);
    return {Verb(store, {"live", "--json", "--memory", memory}), StridedPass(store), CLOCK_MONOTONIC};
}

Comparison AgainstValidate(unsigned int n, std::vector<std::string> const& arguments) {
    auto const store = std::make_shared<Store const>(n);
    return {Verb(store, arguments), Verb(store, {"validate"}), CLOCK_MONOTONIC};
}

} // namespace

Comparison LiveInMemory(Shape, unsigned int n) {
    return LiveAgainstPass(n, "1G");
}

Comparison LiveSpilled(Shape, unsigned int n) {
    return LiveAgainstPass(n, "64M");
}

Comparison RecallInMemory(Shape, unsigned int n) {
    return AgainstValidate(n, {"recall", "--memory", "1G"});
}

Comparison LostContainer(Shape, unsigned int n) {
    return AgainstValidate(n, {"lost", "--container", std::to_string(CR_FIRST_FREE_DCID)});
}

Comparison LiveDuckDB(Shape, unsigned int n) {
    auto const database = std::make_shared<DuckDB>();
    auto const store = std::make_shared<Store const>(n);
    {
        DuckDB::Appender rows(*database, "CREATE TABLE entries (record UINTEGER, dcid UBIGINT, fingerprint BLOB, "
                                         "size UINTEGER)");
        store->ForEachEntry(
            [&rows](unsigned int record, unsigned long dcid, unsigned char const* fingerprint, unsigned int size) {
                rows.Append(record, dcid, {fingerprint, kWidth}, size);
            });
    }
    // As live: per container the different segments, their bytes, the entries, and the records that need it.
    char const* const query = "WITH s AS (SELECT dcid, max(size) AS size, count(*) AS uses FROM entries "
                              "GROUP BY dcid, fingerprint), "
                              "r AS (SELECT dcid, count(DISTINCT record) AS records FROM entries GROUP BY dcid) "
                              "SELECT dcid, count(*)::UBIGINT, sum(size), sum(uses), any_value(records) "
                              "FROM s JOIN r USING (dcid) GROUP BY dcid ORDER BY dcid";
    Require(database->SumOf(query, 1) == n / 2, "DuckDB counts other segments");
    return {Verb(store, {"live", "--json", "--memory", "1G"}),
            {[database, query] { database->Run(query); }},
            CLOCK_MONOTONIC};
}

} // namespace bench
