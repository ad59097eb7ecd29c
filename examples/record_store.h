// DO records in RocksDB, by key: each record without its references in the default column family, its references in
// another, where changes are merged without reading (reference_changes.h).
//
// Thread safety: any number of threads may use a store. One process at a time opens it.

#pragma once

#include "reference_changes.h"

#include <rocksdb/db.h>

#include <functional>
#include <memory>

// A record and its references, of one moment, read in place: the slices pin the memory of the database.
struct StoredRecord {
    rocksdb::PinnableSlice record;     // without references
    rocksdb::PinnableSlice references; // a value, see reference_changes.h
};

// What a change survives from the moment at which its function returns. It is in the log of RocksDB in both cases.
enum class Durability {
    Process, // the end of the process, even by SIGKILL
    Machine, // also a power failure: the log is synchronized with the disk, once for all threads that wait for it
};

class RecordStore {
public:
    // Opens the store in a folder, or creates it.
    // Throws: std::runtime_error here and below if RocksDB fails; here also if `path` has another layout, such as
    // records with their references, or was never completely created.
    RecordStore(std::string const& path, bool create, Durability durability = Durability::Machine);
    ~RecordStore();
    RecordStore(RecordStore const&) = delete;
    RecordStore& operator=(RecordStore const&) = delete;

    // Stores a record in its byte order, in place of a former record of this key and of its references. Legacy
    // references become typed ones.
    // Throws: as DORecord::FromBuffer.
    void Put(std::string const& key, std::string_view record);

    // Merges a change into the references of all these keys or of none. Reads nothing, so it does not notice a key
    // without a record; Check does.
    void Change(std::vector<std::string> const& keys, std::string_view change);

    // Throws: std::runtime_error also if the key has no record.
    void Read(std::string const& key, StoredRecord& stored) const;

    // Returns: the bytes that DORecord would have written after the same changes.
    // Throws: as Read and DORecord::FromBuffer; std::runtime_error if part of the references could not be decoded.
    std::string Get(std::string const& key) const;

    // Checks all records and references, and calls `report` with one line for each fault.
    void Check(std::function<void(std::string const& fault)> const& report) const;

    // Merges the changes of each key into its value, which every compaction does.
    void Compact();

private:
    void Write(rocksdb::WriteBatch& batch);

    rocksdb::WriteOptions writing_;
    std::unique_ptr<rocksdb::DB> database_;
    rocksdb::ColumnFamilyHandle* records_ = nullptr;
    rocksdb::ColumnFamilyHandle* references_ = nullptr;
};
