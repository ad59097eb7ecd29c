// Changes of references per second in RocksDB: merged without reading, against read, changed and written back.
//
//   store_speed FOLDER SEGMENTS THREADS CHANGES
//
// Both sides change one record of SEGMENTS segments, CHANGES times from THREADS threads, with each change on disk
// before the next of its thread. The times include a compaction and a read at the end.

#include "record_store.h"

#include <crrecord/DORecord.h>

#include <rocksdb/utilities/optimistic_transaction_db.h>
#include <rocksdb/utilities/transaction.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <iostream>
#include <random>
#include <stdexcept>
#include <thread>

namespace {

struct Settings {
    unsigned int segments;
    unsigned long threads;
    unsigned long changes;
    Durability durability;
};

void Require(rocksdb::Status const& status) {
    if (!status.ok()) {
        throw std::runtime_error(status.ToString());
    }
}

std::string BytesOf(DORecord const& record) {
    return {reinterpret_cast<char const*>(record.GetHeader()), record.GetHeaderSize()};
}

// A record of DO type 1 with random fingerprints, so that nothing is compressed.
std::string RecordOf(unsigned int segments) {
    std::mt19937_64 random;
    std::vector<unsigned long> fingerprints(2UL * segments);
    std::generate(fingerprints.begin(), fingerprints.end(), random);
    std::vector<unsigned long> const dcids(segments, CR_FIRST_FREE_DCID);
    return BytesOf(DORecord(0, segments, 1, 0, 0, 0, fingerprints.data(), segments, dcids.data(), nullptr,
                            CR_FP_TYPE_MD5, CR_DO_TYPE_NO_SIZE));
}

// Calls change(task) for CHANGES task ids, from all threads, and then end(). Returns: changes per second.
template <class Change, class End>
double Rate(Settings const& settings, Change change, End end) {
    auto const start = std::chrono::steady_clock::now();
    std::vector<std::thread> threads;
    for (unsigned long thread = 0; thread < settings.threads; ++thread) {
        threads.emplace_back([=, &settings] {
            for (unsigned long task = thread; task < settings.changes; task += settings.threads) {
                change(task);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::string const record = end();
    std::chrono::duration<double> const seconds = std::chrono::steady_clock::now() - start;
    if (DORecord::FromBuffer(record.data(), record.size())->GetNtaskid() != settings.changes) {
        throw std::runtime_error("the record does not have all references");
    }
    return static_cast<double>(settings.changes) / seconds.count();
}

double MergedRate(std::string const& folder, std::string const& record, Settings const& settings) {
    RecordStore store(folder + "/merged", true, settings.durability);
    store.Put("key", record);
    auto const change = [&](unsigned long task) {
        std::string reference = {CR_REFTYPE_TASKID, 8, 0, 0, 0, 0};
        for (int shift = 24; shift >= 0; shift -= 8) {
            reference += static_cast<char>(task >> shift);
        }
        ReferenceChanges add;
        add.added = reference;
        store.Change({"key"}, EncodeChanges(add));
    };
    return Rate(settings, change, [&] {
        store.Compact();
        return store.Get("key");
    });
}

double RewrittenRate(std::string const& folder, std::string const& record, Settings const& settings) {
    rocksdb::Options options;
    options.create_if_missing = true;
    rocksdb::OptimisticTransactionDB* opened = nullptr;
    Require(rocksdb::OptimisticTransactionDB::Open(options, folder + "/rewritten", &opened));
    std::unique_ptr<rocksdb::OptimisticTransactionDB> const database(opened);
    Require(database->Put({}, "key", record));
    rocksdb::WriteOptions writing;
    writing.sync = settings.durability == Durability::Machine;
    auto const change = [&](unsigned long task) {
        for (rocksdb::Status status = rocksdb::Status::Busy(); !status.ok();) {
            std::unique_ptr<rocksdb::Transaction> const transaction(database->BeginTransaction(writing));
            std::string stored;
            Require(transaction->GetForUpdate({}, "key", &stored));
            auto const changed = DORecord::FromBuffer(stored.data(), stored.size());
            changed->AddTaskID(task);
            Require(transaction->Put("key", BytesOf(*changed)));
            status = transaction->Commit(); // fails if another thread has changed the record since it was read
        }
    };
    return Rate(settings, change, [&] {
        Require(database->CompactRange({}, nullptr, nullptr));
        std::string stored;
        Require(database->Get({}, "key", &stored));
        return stored;
    });
}

} // namespace

int main(int argc, char** argv) try {
    std::string const durability = argc == 6 ? argv[5] : "";
    if (durability != "process" && durability != "machine") {
        std::cerr << "usage: store_speed FOLDER SEGMENTS THREADS CHANGES process|machine\n";
        return 2;
    }
    Settings const settings{static_cast<unsigned int>(std::stoul(argv[2])), std::stoul(argv[3]), std::stoul(argv[4]),
                            durability == "machine" ? Durability::Machine : Durability::Process};
    std::string const record = RecordOf(settings.segments);
    std::filesystem::create_directory(argv[1]);
    double const merged = MergedRate(argv[1], record, settings);
    double const rewritten = RewrittenRate(argv[1], record, settings);
    std::cout << settings.segments << " segments, " << settings.threads << " threads: " << std::llround(merged)
              << " merged changes per second, " << std::llround(rewritten) << " rewritten, ratio "
              << std::llround(merged / rewritten) << "\n";
} catch (std::exception const& error) {
    std::cerr << "store_speed: " << error.what() << "\n";
    return 1;
}
