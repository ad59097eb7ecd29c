// The rows that records give: one for each segment, or one for each record.

#pragma once

#include "columns/column.h"
#include "columns/record_reader.h"

#include <exception>

namespace crrecord::python::columns {

// Fills batches with the rows of one kind of table.
class RowBuilder {
public:
    // About the rows of a batch, and the elements of a list in it; one record may give more elements.
    static constexpr std::size_t kBatchRows = 64UL * 1024;
    static constexpr std::size_t kBatchElements = 16UL << 20;

    virtual ~RowBuilder() = default;
    virtual std::span<ColumnType const> Types() const noexcept = 0;
    // Returns: the next rows, or none after many steps that gave none or after a signal; null at the end.
    // Throws: BadRecord and ReadError, after the rows before them were returned, and the next call continues;
    // std::bad_alloc, and the next call returns null.
    std::shared_ptr<Batch const> Next(RecordReader& reader);

protected:
    virtual bool IsFull(Batch const& batch) const noexcept { return batch.Rows() >= kBatchRows; }

private:
    // Adds rows, up to the whole of the next record, or takes a step that gives none.
    // Returns: false at the end.
    virtual bool Add(RecordReader& reader, Batch& batch) = 0;

    std::exception_ptr failure_;
    bool hasEnded_ = false;
};

std::unique_ptr<RowBuilder> MakeSegmentRows();
std::unique_ptr<RowBuilder> MakeRecordRows();

} // namespace crrecord::python::columns
