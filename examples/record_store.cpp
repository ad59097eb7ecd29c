#include "record_store.h"

#include <crrecord/DORecord.h>
#include <crrecord/DORecordView.h>

#include <rocksdb/merge_operator.h>
#include <rocksdb/snapshot.h>

#include <algorithm>
#include <stdexcept>

namespace {

constexpr char kReferences[] = "references";

using Report = std::function<void(std::string const& fault)>;

// `what` is the name of the database or a key.
void Require(rocksdb::Status const& status, std::string const& what) {
    if (!status.ok()) {
        throw std::runtime_error(what + ": " + status.ToString());
    }
}

std::string_view ViewOf(rocksdb::Slice const& slice) {
    return {slice.data(), slice.size()};
}

// RocksDB calls it when it reads a value with changes, and when a compaction finds several changes of one key. It never
// returns false: reading the key and compacting it would then fail, too.
class ReferenceMerge final : public rocksdb::MergeOperator {
public:
    char const* Name() const override { return "crrecord.references.1"; }

    bool FullMergeV2(MergeOperationInput const& in, MergeOperationOutput* out) const override {
        std::vector<std::string_view> oldestFirst;
        if (in.existing_value) {
            oldestFirst.push_back(ViewOf(*in.existing_value));
        }
        std::transform(in.operand_list.begin(), in.operand_list.end(), std::back_inserter(oldestFirst), ViewOf);
        out->new_value = MergeChanges(oldestFirst, Removals::Drop);
        return true;
    }

    bool PartialMergeMulti(rocksdb::Slice const&, std::deque<rocksdb::Slice> const& operands, std::string* merged,
                           rocksdb::Logger*) const override {
        std::vector<std::string_view> oldestFirst;
        std::transform(operands.begin(), operands.end(), std::back_inserter(oldestFirst), ViewOf);
        *merged = MergeChanges(oldestFirst, Removals::Keep);
        return true;
    }
};

// The store of a former version of this program has records with their references in its only column family.
void RequireLayout(std::string const& path) {
    std::vector<std::string> families;
    bool const exists = rocksdb::DB::ListColumnFamilies({}, path, &families).ok();
    if (exists && std::find(families.begin(), families.end(), kReferences) == families.end()) {
        throw std::runtime_error(path + ": found no column family \"" + kReferences +
                                 "\", expected one: the database has another layout");
    }
}

std::string BytesOf(DORecord& record, bool network) {
    if (network) {
        record.HostToNetwork(0);
    }
    return {reinterpret_cast<char const*>(record.GetHeader()), record.GetHeaderSize()};
}

std::string Described(std::string_view undecoded) {
    ReferenceChanges unused;
    std::optional<DecodingFault> const fault = DecodeChanges(undecoded, unused);
    return "references: " + std::to_string(undecoded.size()) + " undecoded bytes" +
           (fault ? ": at byte " + std::to_string(fault->offset) + " expected " + fault->expected
                  : ", which can be decoded");
}

// Calls `report` for each part of a value that could not be decoded, which is the value itself if its form is unknown.
// Returns: true if there is none.
bool CheckDecoded(std::string_view value, Report const& report) {
    ReferenceChanges references;
    if (DecodeChanges(value, references)) {
        report(Described(value));
        return false;
    }
    for (std::string_view const part : UndecodedParts(references.undecoded)) {
        report(Described(part));
    }
    return references.undecoded.empty();
}

// Keys may have any bytes. Returns: the key, with \xNN for each byte that is not printable ASCII.
std::string Printable(rocksdb::Slice const& key) {
    std::string text;
    for (char const c : ViewOf(key)) {
        bool const plain = c > ' ' && c <= '~' && c != '\\';
        text += plain ? std::string(1, c) : "\\x" + rocksdb::Slice(&c, 1).ToString(true);
    }
    return text;
}

void CheckRecord(std::string_view bytes, Report const& report) {
    try {
        DORecordView const view(bytes.data(), bytes.size());
        if (view.GetTRefsSize() != 0 || view.GetLegacyTaskIDs() != 0 || view.GetLegacyDSIDs() != 0) {
            report("record: found references, expected them in the column family \"references\"");
        }
    } catch (Cr_ErrnoException const& error) {
        report(std::string("record: ") + error.what());
    }
}

void CheckReferences(std::string_view value, Report const& report) {
    if (CheckDecoded(value, report) && MergeChanges({value}, Removals::Drop) != value) {
        report("references: expected each once, in ascending order, and no removed ones");
    }
}

} // namespace

RecordStore::RecordStore(std::string const& path, bool create, Durability durability) {
    RequireLayout(path);
    writing_.sync = durability == Durability::Machine;
    rocksdb::DBOptions options;
    options.create_if_missing = create;
    options.create_missing_column_families = create;
    rocksdb::ColumnFamilyOptions references;
    references.merge_operator = std::make_shared<ReferenceMerge>();
    rocksdb::DB* database = nullptr;
    std::vector<rocksdb::ColumnFamilyHandle*> handles;
    Require(rocksdb::DB::Open(options, path, {{rocksdb::kDefaultColumnFamilyName, {}}, {kReferences, references}},
                              &handles, &database),
            path);
    database_.reset(database);
    records_ = handles.at(0);
    references_ = handles.at(1);
}

RecordStore::~RecordStore() {
    database_->DestroyColumnFamilyHandle(records_);
    database_->DestroyColumnFamilyHandle(references_);
}

void RecordStore::Put(std::string const& key, std::string_view bytes) {
    bool const network = DORecordView(bytes.data(), bytes.size()).IsInNetworkOrder();
    auto const record = DORecord::FromBuffer(bytes.data(), bytes.size());
    ReferenceChanges references;
    references.added = {record->GetSerializedTRefs(), record->GetSerializedTRefsSize()};
    std::string const value = EncodeChanges(references);
    for (int kind = 0; kind < CR_REFTYPE_END; ++kind) {
        record->ClearTRefType(static_cast<cr_reftype_t>(kind));
    }
    rocksdb::WriteBatch batch;
    Require(batch.Put(records_, key, BytesOf(*record, network)), key);
    Require(batch.Put(references_, key, value), key);
    Write(batch);
}

void RecordStore::Change(std::vector<std::string> const& keys, std::string_view change) {
    rocksdb::WriteBatch batch;
    for (std::string const& key : keys) {
        Require(batch.Merge(references_, key, {change.data(), change.size()}), key);
    }
    Write(batch);
}

void RecordStore::Write(rocksdb::WriteBatch& batch) {
    Require(database_->Write(writing_, &batch), database_->GetName());
}

void RecordStore::Read(std::string const& key, StoredRecord& stored) const {
    rocksdb::ManagedSnapshot snapshot(database_.get());
    rocksdb::ReadOptions options;
    options.snapshot = snapshot.snapshot();
    Require(database_->Get(options, records_, key, &stored.record), key);
    Require(database_->Get(options, references_, key, &stored.references), key);
}

std::string RecordStore::Get(std::string const& key) const {
    StoredRecord stored;
    Read(key, stored);
    CheckDecoded(ViewOf(stored.references), [&](std::string const& fault) {
        throw std::runtime_error(Printable(key).append(": ").append(fault));
    });
    ReferenceChanges references;
    DecodeChanges(ViewOf(stored.references), references);
    DORecordView const view(stored.record.data(), stored.record.size());
    auto const record = DORecord::FromBuffer(stored.record.data(), stored.record.size());
    // RocksDB limits a value to less than 4 GiB.
    record->AddSerializedTRefs(references.added.data(), static_cast<unsigned int>(references.added.size()));
    record->GetHeader()->mtime = references.time != 0 ? references.time : view.GetMTime();
    return BytesOf(*record, view.IsInNetworkOrder());
}

void RecordStore::Check(Report const& report) const {
    rocksdb::ManagedSnapshot snapshot(database_.get());
    rocksdb::ReadOptions options;
    options.snapshot = snapshot.snapshot();
    std::unique_ptr<rocksdb::Iterator> const record(database_->NewIterator(options, records_));
    std::unique_ptr<rocksdb::Iterator> const references(database_->NewIterator(options, references_));
    record->SeekToFirst();
    references->SeekToFirst();
    while (true) {
        Require(record->status(), database_->GetName());
        Require(references->status(), database_->GetName());
        if (!record->Valid() && !references->Valid()) {
            return;
        }
        int const order = !references->Valid() ? -1 : !record->Valid() ? 1 : record->key().compare(references->key());
        std::string const key = Printable(order <= 0 ? record->key() : references->key());
        auto const reportForKey = [&](std::string const& fault) { report(key + ": " + fault); };
        if (order <= 0) {
            CheckRecord(ViewOf(record->value()), reportForKey);
            record->Next();
        } else {
            reportForKey("record: found references only, expected a record");
        }
        if (order >= 0) {
            CheckReferences(ViewOf(references->value()), reportForKey);
            references->Next();
        } else {
            reportForKey("references: found a record only, expected its references");
        }
    }
}

void RecordStore::Compact() {
    Require(database_->CompactRange({}, references_, nullptr, nullptr), database_->GetName());
}
