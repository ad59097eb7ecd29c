#include "columns/exchange.h"

#include <array>
#include <cerrno>
#include <string>
#include <utility>

namespace crrecord::python::columns {

namespace {

// Releases the children of a structure that the receiver has not moved, and the structure with its owner; nothing if it
// is released.
template <class Owner, class Structure>
void Release(Structure* structure) noexcept {
    if (!structure->release) {
        return;
    }
    for (std::int64_t i = 0; i < structure->childCount; ++i) {
        if (structure->children[i]->release) {
            structure->children[i]->release(structure->children[i]);
        }
    }
    structure->release = nullptr;
    delete static_cast<Owner*>(structure->owner);
}

// What a structure of Arrow owns: its children, and the addresses of them.
template <class Structure>
struct Children {
    explicit Children(std::size_t count) : children(count), addresses(count) {
        for (std::size_t i = 0; i < count; ++i) {
            addresses[i] = &children[i];
        }
    }

    std::vector<Structure> children; // all released at first
    std::vector<Structure*> addresses;
};

using OwnedSchema = Children<arrow::Schema>;

struct OwnedArray : Children<arrow::Array> {
    OwnedArray(std::shared_ptr<Batch const> of, std::size_t count) : Children(count), batch(std::move(of)) {}

    std::shared_ptr<Batch const> batch;
    std::array<void const*, 3> buffers{};
};

// Passes `owner` to the structure, with the children that it has.
template <class Structure, class Owner>
void Own(Structure& structure, std::unique_ptr<Owner> owner) noexcept {
    structure.childCount = static_cast<std::int64_t>(owner->children.size());
    structure.children = owner->addresses.data();
    structure.release = Release<Owner, Structure>;
    structure.owner = owner.release();
}

void FillSchema(char const* format, char const* name, bool isNullable, std::size_t children, arrow::Schema& schema) {
    auto owner = std::make_unique<OwnedSchema>(children);
    schema = {};
    schema.format = format;
    schema.name = name;
    schema.flags = isNullable ? arrow::kNullable : 0;
    Own(schema, std::move(owner));
}

// `buffers` are those of the format: validity, offsets if it has them, values if it has no children.
void FillArray(std::unique_ptr<OwnedArray> owner, std::size_t length, std::size_t nulls,
               std::initializer_list<void const*> buffers, arrow::Array& array) noexcept {
    array = {};
    array.length = static_cast<std::int64_t>(length);
    array.nullCount = static_cast<std::int64_t>(nulls);
    array.bufferCount = static_cast<std::int64_t>(buffers.size());
    std::copy(buffers.begin(), buffers.end(), owner->buffers.begin());
    array.buffers = owner->buffers.data();
    Own(array, std::move(owner));
}

void ExportColumn(std::shared_ptr<Batch const> const& batch, Column const& column, arrow::Array& array) {
    bool const isList = column.Type().content == Content::List;
    auto owner = std::make_unique<OwnedArray>(batch, isList ? 1 : 0);
    if (isList) {
        FillArray(std::make_unique<OwnedArray>(batch, 0), column.Values().Size() / column.Type().width, 0,
                  {nullptr, column.Values().Data()}, owner->children[0]);
        FillArray(std::move(owner), column.Rows(), column.Nulls(), {column.Validity(), column.Offsets().Data()}, array);
    } else if (column.Type().content == Content::Text) {
        FillArray(std::move(owner), column.Rows(), column.Nulls(),
                  {column.Validity(), column.Offsets().Data(), column.Values().Data()}, array);
    } else {
        FillArray(std::move(owner), column.Rows(), column.Nulls(), {column.Validity(), column.Values().Data()}, array);
    }
}

// The state of an exported stream. Errors are kept as text, and end the stream.
struct OwnedStream {
    BatchStream stream;
    std::string error;
    int errorNumber = 0;

    template <class Work>
    int Attempt(Work const& work) noexcept {
        try {
            work();
            return 0;
        } catch (BadRecord const& bad) {
            errorNumber = EINVAL;
            error = bad.Text();
        } catch (ReadError const& failure) {
            errorNumber = failure.number != 0 ? failure.number : EIO;
            error = failure.what();
        } catch (std::bad_alloc const&) {
            errorNumber = ENOMEM;
            error.clear();
        } catch (std::exception const& failure) {
            errorNumber = EIO;
            error.clear();
        }
        return errorNumber;
    }
};

OwnedStream& StateOf(arrow::Stream* stream) noexcept {
    return *static_cast<OwnedStream*>(stream->owner);
}

} // namespace

void ExportSchema(std::span<ColumnType const> types, arrow::Schema& schema) {
    arrow::Schema root;
    FillSchema("+s", "", false, types.size(), root);
    try {
        for (std::size_t i = 0; i < types.size(); ++i) {
            bool const isList = types[i].content == Content::List;
            FillSchema(types[i].Format(), types[i].name, types[i].isNullable, isList ? 1 : 0, *root.children[i]);
            if (isList) {
                FillSchema(types[i].ElementFormat(), "item", false, 0, *root.children[i]->children[0]);
            }
        }
    } catch (...) {
        root.release(&root);
        throw;
    }
    schema = root;
}

void ExportBatch(std::shared_ptr<Batch const> batch, arrow::Array& array) {
    std::size_t const columns = batch->columns.size();
    arrow::Array root;
    FillArray(std::make_unique<OwnedArray>(batch, columns), batch->Rows(), 0, {nullptr}, root);
    try {
        for (std::size_t i = 0; i < columns; ++i) {
            ExportColumn(batch, batch->columns[i], *root.children[i]);
        }
    } catch (...) {
        root.release(&root);
        throw;
    }
    array = root;
}

void ExportStream(BatchStream stream, arrow::Stream& exported) {
    auto owner = std::make_unique<OwnedStream>(OwnedStream{std::move(stream), {}, 0});
    exported.schema = [](arrow::Stream* self, arrow::Schema* schema) {
        return StateOf(self).Attempt([&] { ExportSchema(StateOf(self).stream.types, *schema); });
    };
    exported.next = [](arrow::Stream* self, arrow::Array* array) {
        OwnedStream& state = StateOf(self);
        if (state.errorNumber != 0) {
            return state.errorNumber;
        }
        return state.Attempt([&] {
            *array = {};
            std::shared_ptr<Batch const> batch;
            do {
                batch = state.stream.next();
            } while (batch && batch->Rows() == 0);
            if (batch) {
                ExportBatch(std::move(batch), *array);
            }
        });
    };
    exported.lastError = [](arrow::Stream* self) -> char const* {
        return StateOf(self).error.empty() ? nullptr : StateOf(self).error.c_str();
    };
    exported.release = [](arrow::Stream* self) {
        if (std::exchange(self->release, nullptr)) {
            delete &StateOf(self);
        }
    };
    exported.owner = owner.release();
}

} // namespace crrecord::python::columns
