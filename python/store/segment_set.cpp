// SegmentSet: the distinct segments of DO records.

#include "columns/sources.h"

#include "store/segment_set.h"

#include <mutex>

namespace crrecord::python {

using namespace columns;

class SegmentSet {
    // Runs `work`, which calls no Python, without the GIL. A thread with the GIL never waits for the mutex.
    template <class Work>
    auto Locked(Work const& work) {
        return ReleasingGil([&] {
            std::lock_guard const lock(mutex_);
            return work(set_);
        });
    }

public:
    std::uint64_t Size() {
        return Locked([](tool::SegmentSet const& set) { return set.size(); });
    }

    void Update(py::object const& source, std::string const& onError, bool subDO) {
        RecordReader reader(SourcesOf(source), ReaderOptions(onError, subDO));
        try {
            while (!reader.IsAtEnd()) {
                Locked([&](tool::SegmentSet& set) { AddSome(reader, set); });
                CheckSignals();
            }
        } catch (...) {
            RethrowForPython();
        }
    }

private:
    // Adds the segments of the next records.
    static void AddSome(RecordReader& reader, tool::SegmentSet& set) {
        constexpr std::uint64_t kMostSegments = 1UL << 18; // some milliseconds
        constexpr unsigned int kMostRecords = 1U << 14;
        std::uint64_t segments = 0;
        try {
            for (unsigned int i = 0; i < kMostRecords && segments < kMostSegments && !reader.IsAtEnd(); ++i) {
                if (ReadRecord const* const record = reader.Step(); record && record->object) {
                    set.Add(*record->object);
                    segments += record->object->Segments().size();
                }
            }
        } catch (Interrupted const&) {
            // The caller runs the signal's handler and continues.
        }
    }

    std::mutex mutex_;
    tool::SegmentSet set_;
};

void BindSegmentSet(py::module_& module) {
    py::class_<SegmentSet> set(module, "SegmentSet", "The distinct segments of DO records, in memory.");
    set.def(py::init<>())
        .def("__len__", &SegmentSet::Size)
        .def("update", &SegmentSet::Update, py::arg("source"), py::kw_only(), py::arg("on_error") = "raise",
             py::arg("sub_do") = false,
             "Add the segments of the DO records in a buffer, a file or several of them.\n\n"
             "on_error: 'raise' or 'skip' bad records.");
}

} // namespace crrecord::python
