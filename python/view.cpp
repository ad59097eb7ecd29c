// View: a validated DO record, read in place.

#include "view.h"

#include "diagnosis.h"
#include "references.h"
#include "support/layout/record_layout.h"

#include <memory>

namespace crrecord::python {

namespace {

DORecordView Validated(Slice const& bytes, bool subDO) {
    try {
        return WithoutGil(bytes, [&] { return DORecordView(bytes.Data(), bytes.size, subDO ? CR_DO_SUB_DO : 0); });
    } catch (Cr_ErrnoException const& error) {
        Raise(error.GetStatus(), error.what(),
              Diagnose(bytes, {.expected = Expected::DataObject, .subDO = subDO}).findings);
    }
}

// Iterates over the segments. Keeps the view and its bytes alive.
struct SegmentIterator {
    std::shared_ptr<View const> view;
    unsigned int next;
};

// The segments of a view as a sequence.
struct SegmentSequence {
    std::shared_ptr<View const> view;

    py::object Item(py::ssize_t i) const {
        py::ssize_t const count = view->Segments().count;
        py::ssize_t const index = i < 0 ? i + count : i;
        if (index < 0 || index >= count) {
            throw py::index_error("segment index out of range");
        }
        return SegmentOf(view->Segments().Read(static_cast<unsigned int>(index)), view->Segments());
    }
};

py::bytes Converted(View const& view, std::string const& order) {
    if (order != "host" && order != "network") {
        throw py::value_error("the order is 'host' or 'network'");
    }
    py::bytes const copy = BytesOf(view.Bytes().Data(), view.Bytes().size);
    if (order == NameOfOrder(view.Fields().IsInNetworkOrder())) {
        return copy;
    }
    Slice const bytes = PinWhole(copy);
    // The bytes may have changed since the view was made.
    RequireGood(bytes, {.expected = Expected::DataObject, .subDO = true});
    auto* const header = reinterpret_cast<DORecordHeader*>(const_cast<unsigned char*>(bytes.Data()));
    (order == "host" ? DORecordHeaderNtoh : DORecordHeaderHton)(header);
    return copy;
}

void BindSegments(py::module_& module) {
    py::class_<SegmentIterator>(module, "_SegmentIterator")
        .def("__iter__", [](py::object const& self) { return self; })
        .def("__next__", [](SegmentIterator& self) {
            if (self.next == self.view->Segments().count) {
                throw py::stop_iteration();
            }
            return SegmentOf(self.view->Segments().Read(self.next++), self.view->Segments());
        });
    py::class_<SegmentSequence>(module, "_Segments")
        .def("__len__", [](SegmentSequence const& self) { return self.view->Segments().count; })
        .def("__iter__",
             [](SegmentSequence const& self) {
                 return SegmentIterator{self.view, 0};
             })
        .def("__getitem__", &SegmentSequence::Item);
}

template <class Getter>
auto FieldGetter(Getter getter) {
    return [getter](View const& view) { return (view.Fields().*getter)(); };
}

} // namespace

py::object SegmentOf(DOSegment const& segment, DOSegmentSource const& source) {
    // Calls the constructor of tuple, since that of the named tuple is Python code and slow.
    static auto const* const type = new py::object(PythonType("Segment"));
    py::object offset = py::none();
    if (source.offsetWidth != 0) {
        offset = py::int_(segment.offset);
    }
    auto const values = py::make_tuple(
        py::make_tuple(BytesOf(segment.fingerprint.data, source.fingerprint), segment.size, offset, segment.dcid));
    PyObject* const made = PyTuple_Type.tp_new(reinterpret_cast<PyTypeObject*>(type->ptr()), values.ptr(), nullptr);
    if (!made) {
        throw py::error_already_set();
    }
    return py::reinterpret_steal<py::object>(made);
}

// Everything comes from the validated header that the view keeps: the bytes may change while Python uses them.
View::View(Slice bytes, bool subDO)
    : bytes_(std::move(bytes)), fields_(Validated(bytes_, subDO)), segments_(fields_.Segments().GetSource()),
      unique_(fields_.UniqueDCIDs().GetSource()), bloom_(fields_.GetBloom()) {
    RecordLayout const layout({.ntaskid = fields_.GetLegacyTaskIDs(),
                               .nfp = fields_.GetNfp(),
                               .nudcid = fields_.GetNudcid(),
                               .nds = fields_.GetLegacyDSIDs(),
                               .trefssize = fields_.GetTRefsSize(),
                               .bsize = fields_.GetBSize(),
                               .fptype = fields_.GetFPType(),
                               .dotype = fields_.GetDOType()});
    unsigned char const* const record = crrecord::BytesOf(fields_.GetHeader());
    taskIds_ = record + layout.taskIds;
    dsids_ = record + layout.dsids;
    references_ = record + layout.trefs;
}

Array View::entriesOf(std::vector<Field> fields) const {
    return Array(bytes_.owner, segments_.entries, segments_.count, segments_.stride, std::move(fields));
}

// Fingerprint, and size and offset if the DO type has them.
std::vector<Field> View::entryFields() const {
    Content const number = NumberIn(segments_.order == Order::Network);
    std::vector<Field> fields{{"fingerprint", 0, segments_.fingerprint, Content::Bytes}};
    if (segments_.sizeWidth != 0) {
        fields.push_back({"size", segments_.fingerprint, segments_.sizeWidth, number});
    }
    if (segments_.offsetWidth != 0) {
        fields.push_back({"offset", segments_.offset, segments_.offsetWidth, number});
    }
    return fields;
}

Array View::Entries() const {
    return entriesOf(entryFields());
}

Array View::Fingerprints() const {
    return entriesOf({entryFields()[0]});
}

py::object View::Sizes() const {
    std::vector<Field> const fields = entryFields();
    return fields.size() < 2 ? py::none() : py::cast(entriesOf({fields[1]}));
}

py::object View::Offsets() const {
    std::vector<Field> const fields = entryFields();
    return fields.size() < 3 ? py::none() : py::cast(entriesOf({fields[2]}));
}

Array View::Dcids() const {
    return Array(bytes_.owner, segments_.dcids, segments_.count, kDcidSize,
                 {{"dcid", 0, kDcidSize, Content::HostNumber}});
}

Array View::UniqueList() const {
    return Array(bytes_.owner, unique_.entries, unique_.count, kUniqueEntrySize,
                 {{"dcid", 0, 8, Content::HostNumber}, {"bytes", 8, 8, Content::HostNumber}});
}

Array View::Bloom() const {
    return Array(bytes_.owner, bloom_ ? bloom_ : bytes_.Data(), bloom_ ? fields_.GetBSize() : 0, 1,
                 {{"bits", 0, 1, Content::HostNumber}});
}

Array View::LegacyTaskIds() const {
    return Array(bytes_.owner, taskIds_, fields_.GetLegacyTaskIDs(), kLegacyTaskIdSize,
                 {{"task", 0, kLegacyTaskIdSize, Content::HostNumber}});
}

Array View::LegacyDsids() const {
    return Array(bytes_.owner, dsids_, fields_.GetLegacyDSIDs(), kLegacyDsidSize,
                 {{"dsid", 0, kLegacyDsidSize, Content::HostNumber}});
}

py::list View::References() const {
    return DecodeReferences(references_, fields_.GetTRefsSize());
}

void BindView(py::module_& module) {
    BindSegments(module);
    py::class_<View, std::shared_ptr<View>>(module, "View",
                                            "A valid DO record in a buffer, in either byte order, read in place.")
        .def(py::init(
                 [](py::object const& buffer, bool subDO) { return std::make_shared<View>(PinWhole(buffer), subDO); }),
             py::arg("buffer"), py::kw_only(), py::arg("sub_do") = false,
             "Validate and keep the buffer; raise Error, with the findings, unless it is one valid DO record.")
        .def_property_readonly(
            "kind", [](View const&) { return "do"; }, "'do'.")
        .def_property_readonly(
            "order", [](View const& view) { return NameOfOrder(view.Fields().IsInNetworkOrder()); },
            "'host' or 'network'.")
        .def_property_readonly(
            "position", [](View const& view) { return view.Bytes().position; }, "Offset of the record in the buffer.")
        .def_property_readonly("flags", FieldGetter(&DORecordView::GetFlags), "Bits 2 and 4 only.")
        .def_property_readonly("record_size", FieldGetter(&DORecordView::GetHeaderSize), "Bytes of the record.")
        .def_property_readonly("check_time", FieldGetter(&DORecordView::GetCheckTime), "Time of the last check.")
        .def_property_readonly("cid", FieldGetter(&DORecordView::GetDCID), "Container of the record itself.")
        .def_property_readonly("size", FieldGetter(&DORecordView::GetSize), "Bytes of the object.")
        .def_property_readonly("segment_size", FieldGetter(&DORecordView::GetSsize),
                               "Segment size of DO types 0 and 1.")
        .def_property_readonly("crc", FieldGetter(&DORecordView::GetCrc), "The checksum of the creator.")
        .def_property_readonly("ctime", FieldGetter(&DORecordView::GetCTime), "Time of creation.")
        .def_property_readonly("mtime", FieldGetter(&DORecordView::GetMTime), "Time of the last change.")
        .def_property_readonly("fptype", FieldGetter(&DORecordView::GetFPType), "Fingerprint type, 0 to 3.")
        .def_property_readonly("dotype", FieldGetter(&DORecordView::GetDOType), "DO type, 0 to 5.")
        .def_property_readonly("references_size", FieldGetter(&DORecordView::GetTRefsSize), "Bytes of the references.")
        .def_property_readonly(
            "segments", [](std::shared_ptr<View> const& view) { return SegmentSequence{view}; },
            "The segments, as a sequence of Segment, each created on access.")
        .def_property_readonly("entries", &View::Entries, "The stored fields of the segments, without the containers.")
        .def_property_readonly("fingerprints", &View::Fingerprints, "The fingerprints of the segments.")
        .def_property_readonly("sizes", &View::Sizes, "The stored sizes of the segments; None for DO types 0 and 1.")
        .def_property_readonly("offsets", &View::Offsets, "The offsets of the segments; None if the DO type has none.")
        .def_property_readonly("dcids", &View::Dcids, "The containers of the segments.")
        .def_property_readonly("unique_list", &View::UniqueList, "Pairs of container and bytes of the object in it.")
        .def_property_readonly("bloom", &View::Bloom, "The bitmap of DO type 4; otherwise empty.")
        .def_property_readonly("references", &View::References, "The typed references, in stored order.")
        .def_property_readonly("legacy_task_ids", &View::LegacyTaskIds, "Task ids that are not typed references.")
        .def_property_readonly("legacy_dsids", &View::LegacyDsids, "DSIDs that are not typed references.")
        .def("to_bytes", Converted, py::arg("order"), "Return a copy in 'host' or 'network' order.")
        .def("__bytes__", [](View const& view) { return BytesOf(view.Bytes().Data(), view.Bytes().size); })
        .def("__repr__", [](View const& view) {
            return "<crrecord.View: DO type " + std::to_string(view.Fields().GetDOType()) + ", " +
                   std::to_string(view.Segments().count) + " segments, " +
                   NameOfOrder(view.Fields().IsInNetworkOrder()) + " order>";
        });
}

} // namespace crrecord::python
