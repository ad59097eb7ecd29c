// records(): iterates over consecutive records in a buffer.

#include "diagnosis.h"
#include "doubtful_record.h"
#include "iterator.h"
#include "view.h"

#include <crrecord/probe.h>

namespace crrecord::python {

class RecordIterator {
public:
    // `onError` is "raise", "skip" or a function.
    RecordIterator(py::object const& buffer, bool subDO, py::object onError)
        : bytes_(PinWhole(buffer)), subDO_(subDO), onError_(std::move(onError)) {
        if (!PyCallable_Check(onError_.ptr()) && !raises() && !isPolicy("skip")) {
            throw py::value_error("on_error is 'raise', 'skip' or a function");
        }
    }

    unsigned long Position() const noexcept { return bytes_.position; }
    unsigned long Skipped() const noexcept { return skipped_; }

    // Returns: the next record; an empty object at the end.
    py::object Next() {
        while (!ended_ && bytes_.position != bytes_.size) {
            CheckSignals(); // also for a loop without Python code over good records
            unsigned long const position = bytes_.position;
            try {
                return read();
            } catch (py::error_already_set& error) {
                if (!error.matches(PythonType("Error"))) {
                    throw;
                }
                error.value().attr("position") = position;
                if (raises()) {
                    throw;
                }
                ++skipped_;
                if (PyCallable_Check(onError_.ptr())) {
                    onError_(error.value());
                }
            }
        }
        return {};
    }

private:
    bool isPolicy(char const* name) const { return onError_.equal(py::str(name)); }
    bool raises() const { return isPolicy("raise"); }

    py::object read() {
        Slice const rest{bytes_.owner, bytes_.position, bytes_.size - bytes_.position};
        cr_record_probe_t const probe = CRRecordProbe(rest.Data(), rest.size);
        if (probe.kind == CR_RECORD_UNKNOWN) {
            stop(rest, "unknown kind");
        }
        if (rest.size < probe.head_size) {
            stop(rest, "the buffer ends within the record");
        }
        if (probe.recorded_size != probe.counted_size) {
            passDoubtful(rest, probe);
        }
        if (rest.size < probe.recorded_size) {
            stop(rest, "the buffer ends within the record");
        }
        Slice const record{rest.owner, rest.position, probe.recorded_size};
        bytes_.position += probe.recorded_size;
        if (probe.kind == CR_RECORD_DO) {
            return py::cast(std::make_shared<View>(record, subDO_));
        }
        return py::cast(std::make_shared<SegmentView>(record));
    }

    // Raises crrecord.Error. The iteration continues after the record if its end is known.
    [[noreturn]] void passDoubtful(Slice const& rest, cr_record_probe_t const& probe) {
        std::size_t const size = SizeOfDoubtful(
            probe, rest.size, [&](std::size_t) { return std::span<unsigned char const>(rest.Data(), rest.size); });
        std::string const reason = "size " + std::to_string(probe.recorded_size) + ", but its counts give " +
                                   std::to_string(probe.counted_size);
        if (size == 0) {
            stop(rest, reason.c_str());
        }
        bytes_.position += size;
        Slice const record{rest.owner, rest.position, size};
        Raise(CR_STATUS_CORRUPT_RECORD, reason.c_str(), Diagnose(record, {.subDO = subDO_}).findings);
    }

    // Raises crrecord.Error and ends the iteration, since the end of the record is unknown.
    [[noreturn]] void stop(Slice const& rest, char const* reason) {
        ended_ = true;
        Raise(CR_STATUS_CORRUPT_RECORD, reason, Diagnose(rest, {.subDO = subDO_}).findings);
    }

    Slice bytes_; // position: the next record; size: the end of the buffer
    bool subDO_;
    py::object onError_;
    unsigned long skipped_ = 0;
    bool ended_ = false;
};

namespace {

PyObject* NextRecord(PyObject* self) {
    try {
        auto* const iterator = InitializedIn<RecordIterator>(self);
        if (!iterator) {
            throw py::type_error("uninitialized iterator");
        }
        return iterator->Next().release().ptr();
    } catch (...) {
        SetCurrentException();
        return nullptr;
    }
}

} // namespace

void BindStream(py::module_& module) {
    py::class_<RecordIterator>(module, "Records", py::custom_type_setup([](PyHeapTypeObject* type) {
                                   type->ht_type.tp_iter = PyObject_SelfIter;
                                   type->ht_type.tp_iternext = NextRecord;
                               }),
                               "An iterator over consecutive records in a buffer.")
        .def_property_readonly("position", &RecordIterator::Position,
                               "Offset of the next record; after the end, of the first byte that is in no record.")
        .def_property_readonly("skipped", &RecordIterator::Skipped, "Number of bad records that were skipped.");
    module.def(
        "records",
        [](py::object const& buffer, bool subDO, py::object const& onError) {
            return RecordIterator(buffer, subDO, onError);
        },
        py::arg("buffer"), py::kw_only(), py::arg("sub_do") = false, py::arg("on_error") = "raise",
        "Iterate over consecutive records of both kinds in a buffer, each as a View or SegmentView.\n\n"
        "on_error: 'raise' raises Error for a bad record, 'skip' skips it, a function is called with the Error.\n"
        "The iteration continues after a bad record if its size is known, and otherwise ends.");
}

} // namespace crrecord::python
