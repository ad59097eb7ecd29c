// Keeps DO records in an embedded store, by key. Reads them in place and changes their references.
//
//   store DATABASE put KEY RECORD        stores a record in its byte order
//   store DATABASE show KEY              reads it in place
//   store DATABASE move TASK TO KEY...   replaces TASK by TO in all of these records or in none

#include <crrecord/DORecord.h>
#include <crrecord/DORecordView.h>

#include <rocksdb/db.h>
#include <rocksdb/utilities/optimistic_transaction_db.h>
#include <rocksdb/utilities/transaction.h>

#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>

namespace {

using Database = rocksdb::OptimisticTransactionDB;

void Require(rocksdb::Status const& status) {
    if (!status.ok()) {
        throw std::runtime_error(status.ToString());
    }
}

std::unique_ptr<Database> Open(std::string const& path) {
    rocksdb::Options options;
    options.create_if_missing = true;
    Database* database = nullptr;
    Require(Database::Open(options, path, &database));
    return std::unique_ptr<Database>(database);
}

// The constructor of the view validates the record, so the store accepts valid records only.
void Put(Database& database, std::string const& key, char const* path) {
    std::ifstream file(path, std::ios::binary);
    std::string const bytes{std::istreambuf_iterator<char>(file), {}};
    DORecordView const view(bytes.data(), bytes.size());
    Require(database.Put({}, key, bytes));
    std::cout << key << ": " << view.GetNfp() << " segments in " << bytes.size() << " bytes\n";
}

// The slice pins the value in the block cache of the store, if the value has been flushed to a file. The view validates
// and reads it there, without a copy.
void Show(Database& database, std::string const& key) {
    rocksdb::PinnableSlice slice;
    Require(database.Get({}, database.DefaultColumnFamily(), key, &slice));
    DORecordView const view(slice.data(), slice.size());
    std::cout << key << ": " << view.GetSize() << " bytes in " << view.GetNfp() << " segments\n";
    for (DOUniqueDCID const& entry : view.UniqueDCIDs()) {
        std::cout << "  container " << entry.dcid << ": " << entry.bytes << " bytes\n";
    }
    for (DOReference const& reference : view.References()) {
        std::cout << "  kept by kind " << reference.kind << ", id " << reference.id << "\n";
    }
}

// The transaction writes all records as one batch. Commit fails if another writer has changed one of the records since
// it was read here.
void Move(Database& database, unsigned long from, unsigned long to, char** keys) {
    std::unique_ptr<rocksdb::Transaction> const transaction(database.BeginTransaction({}));
    for (; *keys != nullptr; ++keys) {
        std::string stored;
        Require(transaction->GetForUpdate({}, *keys, &stored));
        auto const record = DORecord::FromBuffer(stored.data(), stored.size());
        _cr_tref_t* task = CRTRefNew(CR_REFTYPE_TASKID, from);
        unsigned long const removed = record->DelTRef(task);
        CRTRefDelete(&task);
        if (removed == 0) {
            throw std::runtime_error(std::string(*keys) + " is not kept by task " + std::to_string(from));
        }
        record->AddTaskID(to);
        record->HostToNetwork(0);
        auto const* const bytes = reinterpret_cast<char const*>(record->GetHeader());
        Require(transaction->Put(*keys, rocksdb::Slice(bytes, record->GetHeaderSize())));
    }
    Require(transaction->Commit());
}

} // namespace

int main(int argc, char** argv) try {
    std::string const verb = argc > 3 ? argv[2] : "";
    if (verb == "put" && argc == 5) {
        Put(*Open(argv[1]), argv[3], argv[4]);
    } else if (verb == "show" && argc == 4) {
        Show(*Open(argv[1]), argv[3]);
    } else if (verb == "move" && argc > 5) {
        Move(*Open(argv[1]), std::stoul(argv[3]), std::stoul(argv[4]), argv + 5);
    } else {
        std::cerr << "usage: store DATABASE put KEY RECORD | show KEY | move TASK TO KEY...\n";
        return 2;
    }
} catch (std::exception const& error) {
    std::cerr << "store: " << error.what() << "\n";
    return 1;
}
