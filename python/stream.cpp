// records(): iterates over consecutive records in a buffer.

#include "diagnosis.h"
#include "view.h"

#include <crrecord/probe.h>

#include <algorithm>

namespace crrecord::python {

namespace {

struct RecordIterator {
    SharedBuffer owner;
    unsigned long position;
    bool subDO;

    // Raises crrecord.Error and ends the iteration, since the end of the record is unknown.
    [[noreturn]] void stop(std::string const& reason) {
        std::string const text = "record at byte " + std::to_string(position) + ": " + reason;
        position = owner->Size();
        Raise(CR_STATUS_CORRUPT_RECORD, text.c_str());
    }

    // Raises crrecord.Error for a record whose size and counts disagree. The iterator continues at the nearer end if a
    // record starts there or the buffer ends there, otherwise at the farther one if the buffer has it.
    [[noreturn]] void PassDoubtful(cr_record_probe_t const& probe, unsigned long available) {
        auto const possible = [&](unsigned long size) { return size >= probe.head_size && size <= available; };
        auto const startsRecord = [&](unsigned long size) {
            return size == available ||
                   CRRecordProbe(owner->Data() + position + size, available - size).kind != CR_RECORD_UNKNOWN;
        };
        std::string const reason = "size " + std::to_string(probe.recorded_size) + ", but its counts give " +
                                   std::to_string(probe.counted_size);
        auto const [near, far] = std::minmax({probe.recorded_size, probe.counted_size});
        unsigned long const end = possible(near) && (!possible(far) || startsRecord(near)) ? near : far;
        if (!possible(end)) {
            stop(reason);
        }
        std::string const text = "record at byte " + std::to_string(position) + ": " + reason;
        position += end;
        Raise(CR_STATUS_CORRUPT_RECORD, text.c_str());
    }

    py::object Next() {
        if (position == owner->Size()) {
            throw py::stop_iteration();
        }
        unsigned long const available = owner->Size() - position;
        cr_record_probe_t const probe = CRRecordProbe(owner->Data() + position, available);
        if (probe.kind == CR_RECORD_UNKNOWN) {
            stop("unknown kind");
        }
        if (available < probe.head_size) {
            stop("the buffer ends within it");
        }
        if (probe.recorded_size != probe.counted_size) {
            PassDoubtful(probe, available);
        }
        if (available < probe.recorded_size) {
            stop("the buffer ends within it");
        }
        if (probe.recorded_size < probe.head_size) {
            stop("the record size is less than the fixed part");
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
        "Iterate over consecutive records of both kinds in a buffer, each as a View or SegmentView.\n\n"
        "A bad record raises Error. If its size is known, the iterator continues after it.");
}

} // namespace crrecord::python
