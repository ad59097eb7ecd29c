// Batches and streams of them as structures of Arrow.

#pragma once

#include "columns/arrow.h"
#include "columns/rows.h"

#include <functional>

namespace crrecord::python::columns {

// Each of these fills a structure that the receiver releases.
// Throws: std::bad_alloc, with nothing to release.
void ExportSchema(std::span<ColumnType const> types, arrow::Schema& schema);
void ExportBatch(std::shared_ptr<Batch const> batch, arrow::Array& array);

// Batches of a table, from its start. `next` returns and throws as RowBuilder::Next.
struct BatchStream {
    std::span<ColumnType const> types;
    std::function<std::shared_ptr<Batch const>()> next;
};
void ExportStream(BatchStream stream, arrow::Stream& exported);

} // namespace crrecord::python::columns
