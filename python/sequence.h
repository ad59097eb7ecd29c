// The methods of a Python sequence.

#pragma once

#include "iterator.h"

#include <algorithm>
#include <limits>

namespace crrecord::python {

// Iterates over a copy of the sequence, which keeps its record.
template <class T>
class SequenceSource final : public ValueSource {
public:
    SequenceSource(T const& sequence, bool reversed) : sequence_(sequence), next_(0), reversed_(reversed) {}

    PyObject* Next() override {
        if (Remaining() == 0) {
            return nullptr;
        }
        CheckSignals(next_);
        py::ssize_t const i = next_++;
        return sequence_.Read(reversed_ ? sequence_.Count() - 1 - i : i).release().ptr();
    }
    py::ssize_t Remaining() const noexcept override { return sequence_.Count() - next_; }

private:
    T sequence_;
    py::ssize_t next_;
    bool reversed_;
};

template <class T>
py::object ItemOf(T const& sequence, py::ssize_t i) {
    py::ssize_t const index = i < 0 ? i + sequence.Count() : i;
    if (index < 0 || index >= sequence.Count()) {
        throw py::index_error("index out of range");
    }
    return sequence.Read(index);
}

template <class T>
T PartOf(T const& sequence, py::slice const& slice) {
    py::ssize_t start = 0, stop = 0, step = 0, count = 0;
    if (!slice.compute(sequence.Count(), &start, &stop, &step, &count)) {
        throw py::error_already_set();
    }
    return sequence.Part(start, step, count);
}

// Calls equal(i) for each index in [start, stop) whose element equals the value, until it returns true.
template <class T, class Equal>
void ForEachEqual(T const& sequence, py::object const& value, py::ssize_t start, py::ssize_t stop, Equal equal) {
    auto const clamped = [&](py::ssize_t i) {
        return std::clamp<py::ssize_t>(i < 0 ? i + sequence.Count() : i, 0, sequence.Count());
    };
    for (py::ssize_t i = clamped(start); i < clamped(stop); ++i) {
        if (sequence.Read(i).equal(value) && equal(i)) {
            return;
        }
        CheckSignals(i);
    }
}

constexpr py::ssize_t kNoStop = std::numeric_limits<py::ssize_t>::max();

template <class T>
py::ssize_t IndexOf(T const& sequence, py::object const& value, py::ssize_t start, py::ssize_t stop) {
    py::ssize_t index = -1;
    ForEachEqual(sequence, value, start, stop, [&](py::ssize_t i) {
        index = i;
        return true;
    });
    return index;
}

template <class T>
py::ssize_t CountOf(T const& sequence, py::object const& value) {
    py::ssize_t count = 0;
    ForEachEqual(sequence, value, 0, kNoStop, [&](py::ssize_t) {
        ++count;
        return false;
    });
    return count;
}

template <class T>
bool AreEqual(T const& a, T const& b) {
    if (a.Count() != b.Count()) {
        return false;
    }
    for (py::ssize_t i = 0; i < a.Count(); ++i) {
        if (!a.Read(i).equal(b.Read(i))) {
            return false;
        }
        CheckSignals(i);
    }
    return true;
}

// Makes the class a collections.abc.Sequence. T has Count(), Read(i) and Part(start, step, count).
template <class T>
void BindSequence(py::class_<T>& type) {
    type.def("__len__", &T::Count)
        .def("__iter__", [](T const& self) { return IteratorOver(std::make_unique<SequenceSource<T>>(self, false)); })
        .def("__reversed__",
             [](T const& self) { return IteratorOver(std::make_unique<SequenceSource<T>>(self, true)); })
        .def("__getitem__", ItemOf<T>)
        .def("__getitem__", PartOf<T>)
        .def("__contains__",
             [](T const& self, py::object const& value) { return IndexOf(self, value, 0, kNoStop) >= 0; })
        .def(
            "index",
            [](T const& self, py::object const& value, py::ssize_t start, py::ssize_t stop) {
                py::ssize_t const index = IndexOf(self, value, start, stop);
                if (index < 0) {
                    throw py::value_error(ShortRepr(value) + " is not in the sequence");
                }
                return index;
            },
            py::arg("value"), py::arg("start") = 0, py::arg("stop") = kNoStop,
            "Return the first index of a value; raise ValueError if it is not in the sequence.")
        .def("count", CountOf<T>, py::arg("value"), "Return the number of elements that equal a value.")
        .def("__eq__", [](T const& self, py::object const& other) -> py::object {
            if (!py::isinstance<T>(other)) {
                return py::reinterpret_borrow<py::object>(Py_NotImplemented);
            }
            return py::bool_(AreEqual(self, py::cast<T const&>(other)));
        });
    py::module_::import("collections.abc").attr("Sequence").attr("register")(type);
}

} // namespace crrecord::python
