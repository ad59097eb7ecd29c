// The segments of a DO record as a sequence of crrecord.Segment.

#include "sequence.h"
#include "view.h"

namespace crrecord::python {

py::object SegmentOf(DOSegment const& segment, DOSegmentSource const& source) {
    static auto const* const type = new py::object(PythonType("Segment"));
    py::object const fingerprint = BytesOf(segment.fingerprint.data, source.fingerprint);
    py::object const offset = source.offsetWidth == 0 ? py::object(py::none()) : py::int_(segment.offset);
    return MakeTuple(*type, fingerprint, segment.size, offset, segment.dcid);
}

SegmentSequence::SegmentSequence(std::shared_ptr<View const> view)
    : view_(std::move(view)), start_(0), step_(1), count_(view_->Segments().count) {}

py::object SegmentSequence::Read(py::ssize_t i) const {
    return SegmentOf(view_->Segments().Read(static_cast<unsigned int>(start_ + i * step_)), view_->Segments());
}

SegmentSequence SegmentSequence::Part(py::ssize_t start, py::ssize_t step, py::ssize_t count) const {
    SegmentSequence part = *this;
    part.start_ = start_ + start * step_;
    part.step_ = step_ * step;
    part.count_ = count;
    return part;
}

void BindSegmentSequence(py::module_& module) {
    py::class_<SegmentSequence> type(module, "Segments", "The segments of a View, each created on access.");
    BindSequence(type);
    BindRepr(type,
             [](SegmentSequence const& self) { return "<crrecord.Segments: " + std::to_string(self.Count()) + ">"; });
}

} // namespace crrecord::python
