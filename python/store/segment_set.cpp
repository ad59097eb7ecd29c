// SegmentSet: the distinct segments of DO records.

#include "columns/sources.h"

#include "store/segment_set.h"

#include <pybind11/stl.h>

#include <mutex>

namespace crrecord::python {

using namespace columns;

// Thread safety: any number of threads.
class SegmentSet {
    // Runs `work`, which calls no Python, without the GIL. So no thread that has the GIL waits for the mutex.
    template <class Work>
    auto Locked(Work const& work) const {
        return ReleasingGil([&] {
            std::lock_guard const lock(mutex_);
            return work();
        });
    }

public:
    SegmentSet() = default;
    SegmentSet(tool::SegmentSet set, std::uint64_t skipped) : set_(std::move(set)), skipped_(skipped) {}

    // Returns: read(set).
    template <class Read>
    auto Get(Read const& read) const {
        return Locked([&] { return read(set_); });
    }
    std::uint64_t Skipped() const {
        return Locked([&] { return skipped_; });
    }

    void Update(py::object const& source, std::string const& onError, bool subDO) {
        RecordReader reader(SourcesOf(source), ReaderOptions(onError, subDO));
        try {
            while (!reader.IsAtEnd()) {
                Locked([&] { AddSome(reader); });
                CheckSignals();
            }
        } catch (...) {
            RethrowForPython();
        }
    }

    void Merge(SegmentSet const& other) {
        if (this != &other) {
            ReleasingGil([&] {
                std::scoped_lock const lock(mutex_, other.mutex_);
                set_.Merge(other.set_);
                skipped_ += other.skipped_;
            });
        }
    }

    // Returns: the parts; the first has the number of bad records that were skipped.
    std::vector<std::unique_ptr<SegmentSet>> Split(std::size_t parts) const {
        return Locked([&] {
            std::vector<std::unique_ptr<SegmentSet>> split;
            for (tool::SegmentSet& part : set_.Split(parts)) {
                split.push_back(std::make_unique<SegmentSet>(std::move(part), split.empty() ? skipped_ : 0));
            }
            return split;
        });
    }

    // Returns: the set as bytes, and the number of bad records.
    py::tuple State() const {
        for (;;) {
            auto const size = static_cast<py::ssize_t>(Get([](auto& set) { return set.SerializedSize(); }));
            auto state = py::reinterpret_steal<py::bytes>(PyBytes_FromStringAndSize(nullptr, size));
            if (!state) {
                throw py::error_already_set();
            }
            auto* const to = reinterpret_cast<unsigned char*>(PyBytes_AS_STRING(state.ptr()));
            std::uint64_t skipped = 0;
            bool const isWritten = Locked([&] {
                bool const fits = set_.SerializedSize() == static_cast<std::size_t>(size);
                if (fits) {
                    set_.Serialize(to);
                    skipped = skipped_;
                }
                return fits;
            });
            if (isWritten) { // otherwise another thread has added segments
                return py::make_tuple(state, skipped);
            }
        }
    }

private:
    // Adds the segments of the next records.
    void AddSome(RecordReader& reader) {
        constexpr std::uint64_t kMostSegments = 1UL << 18; // some milliseconds
        constexpr unsigned int kMostSteps = 1U << 14;
        std::uint64_t segments = 0;
        try {
            for (unsigned int i = 0; i < kMostSteps && segments < kMostSegments && !reader.IsAtEnd(); ++i) {
                std::uint64_t const before = reader.Skipped();
                ReadRecord const* const record = reader.Step();
                skipped_ += reader.Skipped() - before;
                if (record && record->object) {
                    set_.Add(*record->object);
                    segments += record->object->Segments().size();
                }
            }
        } catch (Interrupted const&) {
            // The caller runs the handler of the signal and continues.
        }
    }

    mutable std::mutex mutex_;
    mutable tool::SegmentSet set_; // its functions may add its segments to its index
    std::uint64_t skipped_ = 0;
};

namespace {

std::unique_ptr<SegmentSet> FromFile(py::object const& path, std::string const& onError, bool subDO) {
    if (!IsPath(path)) {
        throw py::type_error("a path is a str or an os.PathLike of one");
    }
    auto set = std::make_unique<SegmentSet>();
    set->Update(path, onError, subDO);
    return set;
}

py::dict BytesByContainer(SegmentSet const& self) {
    py::dict bytes;
    py::ssize_t i = 0;
    tool::Containers const sums = self.Get([](auto& set) { return set.SumsByContainer(); });
    for (tool::ContainerTotals const* const container : sums.Sorted(std::nullopt)) {
        bytes[py::int_(container->dcid)] = container->bytes;
        CheckSignals(i++);
    }
    return bytes;
}

std::unique_ptr<SegmentSet> Restored(py::object const& state, std::uint64_t skipped) {
    Slice const bytes = PinWhole(state);
    try {
        return ReleasingGil([&] {
            return std::make_unique<SegmentSet>(tool::SegmentSet::Deserialize({bytes.Data(), bytes.size}), skipped);
        });
    } catch (tool::SegmentSet::BadSet const& error) {
        Raise(CR_STATUS_CORRUPT_DATA, error.what());
    }
}

// What pickle and copy call. A PickleBuffer is passed beside the pickle if the caller of pickle wants that.
py::tuple Reduced(SegmentSet const& self, int protocol) {
    constexpr int kFirstWithBuffers = 5;
    py::tuple const state = self.State();
    py::object const bytes =
        protocol >= kFirstWithBuffers ? py::module_::import("pickle").attr("PickleBuffer")(state[0]) : state[0];
    return py::make_tuple(PythonType("restore_segment_set"), py::make_tuple(bytes, state[1]));
}

} // namespace

void BindSegmentSet(py::module_& module) {
    py::class_<SegmentSet> set(module, "SegmentSet",
                               "The distinct segments of DO records, in memory: container, fingerprint type and "
                               "fingerprint.\n\n"
                               "If records disagree about the size of a segment, the greatest counts.");
    set.def(py::init<>())
        .def_static("from_file", FromFile, py::arg("path"), py::kw_only(), py::arg("on_error") = "raise",
                    py::arg("sub_do") = false, "Return the segments of the DO records in a file.")
        .def("update", &SegmentSet::Update, py::arg("source"), py::kw_only(), py::arg("on_error") = "raise",
             py::arg("sub_do") = false,
             "Add the segments of the DO records in a buffer, a file or several of them.\n\n"
             "on_error: 'raise' or 'skip' bad records. Records before a bad one are added.")
        .def(
            "__ior__",
            [](py::object const& self, SegmentSet const& other) {
                py::cast<SegmentSet&>(self).Merge(other);
                return self;
            },
            py::is_operator())
        .def(
            "split",
            [](SegmentSet const& self, std::size_t parts) {
                constexpr std::size_t kMost = 1UL << 16;
                if (parts == 0 || parts > kMost) {
                    throw py::value_error("the number of parts is from 1 to 65536");
                }
                return self.Split(parts);
            },
            py::arg("parts"),
            "Return a list of disjoint sets.\n\n"
            "The part of a segment depends on the segment and the number of parts only, in every process.")
        .def("bytes_by_container", BytesByContainer,
             "Return a dictionary of the bytes in each container, in ascending order of the containers.")
        .def("__len__", [](SegmentSet const& self) { return self.Get([](auto& s) { return s.Size(); }); })
        .def_property_readonly(
            "bytes", [](SegmentSet const& self) { return self.Get([](auto& s) { return s.Sums().bytes; }); },
            "The sum of the sizes.")
        .def_property_readonly(
            "conflicts", [](SegmentSet const& self) { return self.Get([](auto& s) { return s.Conflicts(); }); },
            "Number of segments that records give several sizes.")
        .def_property_readonly("skipped", &SegmentSet::Skipped,
                               "Number of bad records that were skipped, also for the sets merged into this one.\n\n"
                               "Of the parts of a set the first has its number.")
        .def("__sizeof__", // schedulers measure results with sys.getsizeof
             [](SegmentSet const& self) { return sizeof self + self.Get([](auto& s) { return s.MemoryBytes(); }); })
        .def("__reduce_ex__", Reduced);
    BindRepr(set, [](SegmentSet const& self) {
        auto const [segments, bytes] = self.Get([](auto& s) { return s.Sums(); });
        return "<crrecord.SegmentSet: " + std::to_string(segments) + " segments, " + std::to_string(bytes) + " bytes>";
    });
    module.def("_restored", Restored);
}

} // namespace crrecord::python
