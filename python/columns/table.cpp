// read_segments() and read_records(): records as tables.

#include "columns/exchange.h"
#include "columns/sources.h"

#include <pybind11/stl.h>

#include <atomic>
#include <mutex>

namespace crrecord::python {

namespace {

using namespace columns;

constexpr char kSchemaCapsule[] = "arrow_schema";
constexpr char kArrayCapsule[] = "arrow_array";
constexpr char kStreamCapsule[] = "arrow_array_stream";

// --- Tables -------------------------------------------------------------------------------------------------------

using Count = std::shared_ptr<std::atomic<std::uint64_t>>;

Count NewCount() {
    return std::make_shared<std::atomic<std::uint64_t>>(0);
}

// Records of the sources as rows. Each use reads the sources from the start.
struct Table {
    Sources sources;
    RecordReader::Options options;
    std::unique_ptr<RowBuilder> (*makeRows)();
    Count skipped = NewCount(); // of the last use

    std::span<ColumnType const> Types() const { return makeRows()->Types(); }

    // Counts bad records in `own`, too.
    BatchStream Open(Count const& own = NewCount()) const {
        struct Reading {
            Reading(Table const& table, Count const& own)
                : reader(table.sources, table.options), rows(table.makeRows()), skipped{table.skipped, own} {}

            std::shared_ptr<Batch const> Next() {
                struct Counting {
                    Reading& reading;
                    ~Counting() {
                        for (Count const& count : reading.skipped) {
                            count->store(reading.reader.Skipped());
                        }
                    }
                } const counting{*this};
                return rows->Next(reader);
            }

            RecordReader reader;
            std::unique_ptr<RowBuilder> rows;
            Count skipped[2];
        };
        skipped->store(0);
        return {Types(), [reading = std::make_shared<Reading>(*this, own)] { return reading->Next(); }};
    }
};

struct BatchIterator {
    explicit BatchIterator(Table const& table) : stream(table.Open(skipped)) {}

    // Returns: null at the end.
    std::shared_ptr<Batch const> Next() {
        try {
            for (;;) {
                CheckSignals();
                auto batch = ReleasingGil([this] {
                    std::lock_guard const lock(mutex);
                    return stream.next();
                });
                if (!batch || batch->Rows() != 0) {
                    return batch;
                }
            }
        } catch (...) {
            RethrowForPython();
        }
    }

    Count skipped = NewCount(); // before the stream, which gets it
    BatchStream stream;
    std::mutex mutex;
};

Table MakeTable(py::object const& source, std::string const& onError, bool subDO,
                std::unique_ptr<RowBuilder> (*makeRows)()) {
    return {SourcesOf(source), ReaderOptions(onError, subDO), makeRows};
}

// --- Capsules -----------------------------------------------------------------------------------------------------

// Returns: a capsule with a structure that `fill` fills. The capsule releases it unless its receiver has moved it.
template <class Structure, class Fill>
py::object Capsule(char const* name, Fill const& fill) {
    auto structure = std::make_unique<Structure>();
    fill(*structure);
    PyObject* const capsule = PyCapsule_New(structure.get(), name, [](PyObject* object) {
        auto* const owned = static_cast<Structure*>(PyCapsule_GetPointer(object, PyCapsule_GetName(object)));
        if (owned->release) {
            owned->release(owned);
        }
        delete owned;
    });
    if (!capsule) {
        structure->release(structure.get());
        throw py::error_already_set();
    }
    static_cast<void>(structure.release());
    return py::reinterpret_steal<py::object>(capsule);
}

py::object SchemaOf(std::span<ColumnType const> types) {
    return Capsule<arrow::Schema>(kSchemaCapsule, [&](arrow::Schema& schema) { ExportSchema(types, schema); });
}

// --- Batches ------------------------------------------------------------------------------------------------------

// A batch that Python holds, with the columns of its table.
struct PythonBatch {
    std::shared_ptr<Batch const> batch;
    std::span<ColumnType const> types;
};

// One buffer of a batch.
struct BatchBuffer {
    std::shared_ptr<Batch const> batch;
    unsigned char const* bytes;
    std::size_t size;
};

// The name, format, format of elements, and whether values can be null.
py::tuple Described(ColumnType const& type) {
    return py::make_tuple(type.name, type.Format(), type.ElementFormat(), type.isNullable);
}

// Returns: for each column its description, and its validity, offsets and values, each None if it has none.
py::list BuffersOf(PythonBatch const& self) {
    py::list columns;
    auto const buffer = [&](unsigned char const* bytes, std::size_t size) -> py::object {
        return bytes ? py::cast(BatchBuffer{self.batch, bytes, size}) : py::none();
    };
    for (Column const& column : self.batch->columns) {
        ColumnBytes const &offsets = column.Offsets(), &values = column.Values();
        columns.append(py::make_tuple(Described(column.Type()), buffer(column.Validity(), (column.Rows() + 7) / 8),
                                      buffer(offsets.Data(), offsets.Size()), buffer(values.Data(), values.Size())));
    }
    return columns;
}

py::object ToNumpy(py::object const& self) {
    return py::module_::import("crrecord._columns").attr("to_numpy")(self);
}

template <class Class>
std::vector<std::string> NamesOf(Class const& self) {
    std::vector<std::string> names;
    for (ColumnType const& type : self) {
        names.emplace_back(type.name);
    }
    return names;
}

// Only C++ makes objects of the type: one that __new__ made would have no value.
void ForbidNew(py::handle type) {
    reinterpret_cast<PyTypeObject*>(type.ptr())->tp_new = nullptr;
    PyType_Modified(reinterpret_cast<PyTypeObject*>(type.ptr()));
}

void BindBatches(py::module_& module) {
    py::class_<BatchBuffer> buffer(module, "_BatchBuffer", py::buffer_protocol());
    buffer.def_buffer(
        [](BatchBuffer const& self) { return py::buffer_info(self.bytes, static_cast<py::ssize_t>(self.size)); });
    py::class_<PythonBatch> batch(module, "Batch", "Rows of a Table. It has the Arrow PyCapsule interface.");
    batch.def("__len__", [](PythonBatch const& self) { return self.batch->Rows(); })
        .def_property_readonly(
            "column_names", [](PythonBatch const& self) { return NamesOf(self.types); }, "The names of the columns.")
        .def(
            "__arrow_c_schema__", [](PythonBatch const& self) { return SchemaOf(self.types); },
            "Return a capsule with the schema.")
        .def(
            "__arrow_c_array__",
            [](PythonBatch const& self, py::object const&) {
                py::object const schema = SchemaOf(self.types);
                return py::make_tuple(schema, Capsule<arrow::Array>(kArrayCapsule, [&](arrow::Array& array) {
                                          ExportBatch(self.batch, array);
                                      }));
            },
            py::arg("requested_schema") = py::none(), "Return capsules with the schema and the rows.")
        .def("_buffers", BuffersOf)
        .def("to_numpy", ToNumpy, "Return a dictionary of NumPy arrays, one for each column.");
    py::class_<BatchIterator> batches(module, "_Batches");
    batches.def("__iter__", [](py::object const& self) { return self; });
    batches.def_property_readonly(
        "skipped", [](BatchIterator const& self) { return self.skipped->load(); },
        "Number of bad records that were skipped.");
    batches.def("__next__", [](BatchIterator& self) {
        std::shared_ptr<Batch const> rows = self.Next();
        if (!rows) {
            throw py::stop_iteration();
        }
        return PythonBatch{std::move(rows), self.stream.types};
    });
    for (py::handle const type : {py::handle(buffer), py::handle(batch), py::handle(batches)}) {
        ForbidNew(type);
    }
}

} // namespace

void BindColumns(py::module_& module) {
    BindBatches(module);
    py::class_<Table> table(
        module, "Table",
        "Records as columns. Each use reads the sources from the start.\n\n"
        "It has the Arrow PyCapsule interface, so data frame libraries read it, and iterates over batches "
        "of rows.");
    ForbidNew(table);
    table
        .def_property_readonly(
            "column_names", [](Table const& self) { return NamesOf(self.Types()); }, "The names of the columns.")
        .def_property_readonly(
            "skipped", [](Table const& self) { return self.skipped->load(); },
            "Number of bad records that the last use has skipped so far.")
        .def("__iter__", [](Table const& self) { return std::make_unique<BatchIterator>(self); })
        .def(
            "__arrow_c_schema__", [](Table const& self) { return SchemaOf(self.Types()); },
            "Return a capsule with the schema.")
        .def(
            "__arrow_c_stream__",
            [](Table const& self, py::object const&) {
                return Capsule<arrow::Stream>(kStreamCapsule,
                                              [&](arrow::Stream& stream) { ExportStream(self.Open(), stream); });
            },
            py::arg("requested_schema") = py::none(), "Return a capsule with a stream of batches.")
        .def("_columns",
             [](Table const& self) {
                 py::list columns;
                 for (ColumnType const& type : self.Types()) {
                     columns.append(Described(type));
                 }
                 return columns;
             })
        .def("to_numpy", ToNumpy, "Return a dictionary of NumPy arrays, one for each column.");
    auto const define = [&](char const* name, std::unique_ptr<RowBuilder> (*makeRows)(), char const* text) {
        module.def(
            name,
            [makeRows](py::object const& source, std::string const& onError, bool subDO) {
                return MakeTable(source, onError, subDO, makeRows);
            },
            py::arg("source"), py::kw_only(), py::arg("on_error") = "raise", py::arg("sub_do") = false, text);
    };
    define("read_segments", MakeSegmentRows,
           "Return a Table with a row for each segment of the DO records in a buffer, a file or several of them.\n\n"
           "on_error: 'raise' or 'skip' bad records.");
    define("read_records", MakeRecordRows,
           "Return a Table with a row for each record of both kinds in a buffer, a file or several of them.\n\n"
           "on_error: 'raise' or 'skip' bad records.");
}

} // namespace crrecord::python
