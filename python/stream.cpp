// records(): the records that stand one behind the other in a buffer.

#include "diagnosis.h"
#include "view.h"

#include <crrecord/probe.h>

namespace crrecord::python {

namespace {

struct RecordIterator {
    SharedBuffer owner;
    unsigned long position;
    bool subDO;

    // Where a record's end can't be told, nothing is read behind it.
    [[noreturn]] void stop(std::string const& reason) {
        std::string const text = "record at byte " + std::to_string(position) + ": " + reason;
        position = owner->Size();
        Raise(CR_STATUS_CORRUPT_RECORD, text.c_str());
    }

    py::object Next() {
        if (position == owner->Size()) {
            throw py::stop_iteration();
        }
        unsigned long const available = owner->Size() - position;
        cr_record_probe_t const probe = CRRecordProbe(owner->Data() + position, available);
        if (probe.kind == CR_RECORD_UNKNOWN) {
            stop("of no known kind");
        }
        if (available < probe.head_size || available < probe.recorded_size) {
            stop("the buffer ends within it");
        }
        if (probe.recorded_size < probe.head_size) {
            stop("its record size is less than a record");
        }
        Slice const bytes{owner, position, probe.recorded_size};
        position += probe.recorded_size;
        if (probe.kind == CR_RECORD_DO) {
            return py::cast(std::make_shared<View>(bytes, subDO));
        }
        return py::cast(std::make_shared<SegmentView>(bytes));
    }
};

} // namespace

void BindStream(py::module_& module) {
    py::class_<RecordIterator>(module, "_Records")
        .def("__iter__", [](py::object const& self) { return self; })
        .def("__next__", &RecordIterator::Next);
    module.def(
        "records",
        [](py::object const& buffer, bool subDO) {
            return RecordIterator{std::make_shared<PinnedBuffer const>(buffer), 0, subDO};
        },
        py::arg("buffer"), py::kw_only(), py::arg("sub_do") = false,
        "The records of both kinds that stand one behind the other in a buffer, each as a View or SegmentView.\n\n"
        "A bad one raises Error; asked again, the iterator goes on behind it where its size can be told.");
}

} // namespace crrecord::python
