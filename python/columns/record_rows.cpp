// Rows of records.

#include "columns/rows.h"

#include "SOmarshall/layout.h"
#include "view.h"

#include <iterator>

namespace crrecord::python::columns {

namespace {

// The fields of both kinds of records. Those of one kind are null for the other.
enum RecordColumn {
    kRecord,
    kSource,
    kPosition,
    kKind,
    kOrder,
    kFlags,
    kRecordSize,
    kCheckTime,
    kSize,
    kCrc,
    kFPType,
    kCid,
    kSegmentSize,
    kCTime,
    kMTime,
    kDOType,
    kReferencesSize,
    kBloomSize,
    kSegments,
    kContainers,
    kLegacyTaskIds,
    kLegacyDsids,
    kPathId,
    kFileId,
    kDcid,
    kKey,
    kCryptoMode,
    kKeyIndex,
    kFingerprints,
    kTasks,
    kDsids,
    kColumns
};

constexpr ColumnType kTypes[] = {
    {"record", Content::Number, 8},
    {"source", Content::Number, 4},
    {"position", Content::Number, 8},
    {"kind", Content::Text, 0},
    {"order", Content::Text, 0},
    {"flags", Content::Number, 2},
    {"record_size", Content::Number, 4},
    {"check_time", Content::Number, 4},
    {"size", Content::Number, 8},
    {"crc", Content::Number, 4},
    {"fptype", Content::Number, 1},
    {"cid", Content::Number, 8, true},
    {"segment_size", Content::Number, 8, true},
    {"ctime", Content::Number, 4, true},
    {"mtime", Content::Number, 4, true},
    {"dotype", Content::Number, 1, true},
    {"references_size", Content::Number, 4, true},
    {"bloom_size", Content::Number, 4, true},
    {"segments", Content::Number, 4, true},
    {"containers", Content::Number, 4, true},
    {"legacy_task_ids", Content::Number, 4, true},
    {"legacy_dsids", Content::Number, 4, true},
    {"path_id", Content::Number, 8, true},
    {"file_id", Content::Number, 8, true},
    {"dcid", Content::Number, 8, true},
    {"key", Content::Bytes, CR_SO_KEY_SIZE, true},
    {"crypto_mode", Content::Number, 1, true},
    {"key_index", Content::Number, 2, true},
    {"fingerprints", Content::Number, 4, true},
    {"tasks", Content::List, 8},
    {"dsids", Content::List, 4},
};
static_assert(std::size(kTypes) == kColumns);

constexpr RecordColumn kFirstOfObject = kCid, kFirstOfSegment = kPathId, kFirstOfBoth = kTasks;

class Row {
public:
    explicit Row(Batch& batch) : batch_(batch) {}
    Column& operator[](RecordColumn column) { return batch_.columns[column]; }
    void AddNumbers(RecordColumn first, std::initializer_list<std::uint64_t> values) {
        std::size_t column = first;
        for (std::uint64_t const value : values) {
            batch_.columns[column++].AddNumber(value);
        }
    }
    void AddNulls(RecordColumn first, RecordColumn end) {
        for (std::size_t column = first; column < end; ++column) {
            batch_.columns[column].AddNull();
        }
    }

private:
    Batch& batch_;
};

// Adds the legacy ids, which have the byte order of the machine that wrote them, and then the references.
void AddReferences(Row& row, DORecordView const& record) {
    RecordLayout const layout = LayoutOf(record);
    unsigned char const* const bytes = crrecord::BytesOf(record.GetHeader());
    for (std::uint64_t i = 0; i < record.GetLegacyTaskIDs(); ++i) {
        row[kTasks].AddElement(Load<std::uint64_t>(bytes + layout.taskids + i * kLegacyTaskIdSize, Order::Host));
    }
    for (std::uint64_t i = 0; i < record.GetLegacyDSIDs(); ++i) {
        row[kDsids].AddElement(Load<std::uint32_t>(bytes + layout.dsids + i * kLegacyDsidSize, Order::Host));
    }
    for (DOReference const reference : record.References()) {
        if (reference.kind == CR_REFTYPE_TASKID) {
            row[kTasks].AddElement(reference.id);
        } else if (reference.kind == CR_REFTYPE_DSID) {
            row[kDsids].AddElement(reference.id);
        }
    }
}

void AddObject(Row& row, DORecordView const& record) {
    row.AddNumbers(kFlags,
                   {record.GetFlags(), record.GetHeaderSize(), record.GetCheckTime(), record.GetSize(), record.GetCrc(),
                    record.GetFPType(), record.GetDCID(), record.GetSsize(), record.GetCTime(), record.GetMTime(),
                    record.GetDOType(), record.GetTRefsSize(), record.GetBSize(), record.Segments().size(),
                    record.GetNudcid(), record.GetLegacyTaskIDs(), record.GetLegacyDSIDs()});
    row.AddNulls(kFirstOfSegment, kFirstOfBoth);
    AddReferences(row, record);
}

void AddSegment(Row& row, _SegmentDBRecord const& record, unsigned char const* bytes, Order order) {
    row.AddNumbers(kFlags, {record.flags, record.recsize, record.checktime, record.size, record.CRC, record.fptype});
    row.AddNulls(kFirstOfObject, kFirstOfSegment);
    row.AddNumbers(kPathId, {record.pathid, record.fileid});
    if (RecordInContainer(record.fileid)) {
        row[kDcid].AddNumber(record.pathid);
    } else {
        row[kDcid].AddNull();
    }
    row[kKey].AddBytes(record.key);
    row.AddNumbers(kCryptoMode, {record.cryptomode, record.keyindex, record.nfp});
    for (std::uint64_t i = 0; i < record.ntaskids; ++i) {
        row[kTasks].AddElement(Load<std::uint64_t>(bytes + CR_SO_FIXED_SIZE + i * segment::kTaskIdSize, order));
    }
}

void AddRow(Batch& batch, ReadRecord const& record) {
    Row row(batch);
    row.AddNumbers(kRecord, {record.number, record.source, record.position});
    row[kKind].AddText(record.object ? "do" : "segment");
    row[kOrder].AddText(NameOfOrder(record.networkOrder));
    if (record.object) {
        AddObject(row, *record.object);
    } else {
        AddSegment(row, record.segment, record.segmentBytes, record.networkOrder ? Order::Network : Order::Host);
    }
    row[kTasks].EndList();
    row[kDsids].EndList();
}

class RecordRows : public RowBuilder {
public:
    std::span<ColumnType const> Types() const noexcept override { return kTypes; }

private:
    bool Add(RecordReader& reader, Batch& batch) override {
        ReadRecord const* const record = reader.Step();
        if (record) {
            AddRow(batch, *record);
        }
        return record || !reader.IsAtEnd();
    }

    bool IsFull(Batch const& batch) const noexcept override {
        auto const elements = [&](RecordColumn column) {
            return batch.columns[column].Values().Size() / batch.columns[column].Type().width;
        };
        return RowBuilder::IsFull(batch) || std::max(elements(kTasks), elements(kDsids)) >= kBatchElements;
    }
};

} // namespace

std::unique_ptr<RowBuilder> MakeRecordRows() {
    return std::make_unique<RecordRows>();
}

} // namespace crrecord::python::columns
