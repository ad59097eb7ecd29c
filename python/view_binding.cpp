// View as a Python class.

#include "do_fields.h"
#include "enums.h"
#include "view.h"

namespace crrecord::python {

namespace {

template <class Getter>
auto FieldGetter(Getter getter) {
    return [getter](View const& view) { return (view.Fields().*getter)(); };
}

py::object ReduceView(View const& view) {
    return PickleOf("_view", BytesOf(view.Bytes().Data(), view.Bytes().size), view.IsSubDO());
}

using ViewClass = py::class_<View, std::shared_ptr<View>>;

void BindHeader(ViewClass& type) {
    type.def_property_readonly(
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
        .def_property_readonly(
            "fptype", [](View const& view) { return FPTypeMember(view.Fields().GetFPType()); }, "Fingerprint type.")
        .def_property_readonly(
            "dotype", [](View const& view) { return DOTypeMember(view.Fields().GetDOType()); }, "DO type.")
        .def_property_readonly("references_size", FieldGetter(&DORecordView::GetTRefsSize), "Bytes of the references.");
}

void BindSections(ViewClass& type) {
    type.def_property_readonly(
            "segments", [](View const& view) { return SegmentSequence(view.shared_from_this()); },
            "The segments, as a sequence of Segment, each created on access.")
        .def_property_readonly("entries", &View::Entries,
                               "The stored fields of the segments, without the containers: an array of structures.")
        .def_property_readonly("fingerprints", &View::Fingerprints, "The fingerprints of the segments.")
        .def_property_readonly("sizes", &View::Sizes,
                               "The sizes of the segments; computed if the DO type does not store them.")
        .def_property_readonly("offsets", &View::Offsets,
                               "The offsets of the segments; None, or 2**64 - 1 in the buffer, if the DO type does not "
                               "store them.")
        .def_property_readonly("dcids", &View::Dcids, "The containers of the segments.")
        .def_property_readonly("unique_list", &View::UniqueList, "Pairs of container and bytes of the object in it.")
        .def_property_readonly("bloom", &View::Bloom, "The bitmap of DO type 4; otherwise empty.")
        .def_property_readonly("references", &View::References, "The typed references, in stored order.")
        .def_property_readonly("legacy_task_ids", &View::LegacyTaskIds, "Task ids that are not typed references.")
        .def_property_readonly("legacy_dsids", &View::LegacyDsids, "DSIDs that are not typed references.");
}

} // namespace

void BindView(py::module_& module) {
    BindSegmentSequence(module);
    ViewClass type(module, "View", "A valid DO record in a buffer, in either byte order, read in place.");
    type.def(
        py::init([](py::object const& buffer, bool subDO) { return std::make_shared<View>(PinWhole(buffer), subDO); }),
        py::arg("buffer"), py::kw_only(), py::arg("sub_do") = false,
        "Validate and keep the buffer; raise Error, with the findings, unless it is one valid DO record.");
    BindHeader(type);
    BindSections(type);
    type.def(
            "digest", [](View const& view) { return DigestOf(*view.Copy(), false); },
            "Return one fingerprint for the object as a Digest, or None.")
        .def(
            "container_sizes", [](View const& view) { return ContainerSizesOf(*view.Copy()); },
            "Return a dict of container to bytes: the unique list, plus the record in its container.")
        .def(
            "to_bytes",
            [](View const& view, std::string const& order) { return Converted(view.Bytes(), view.IsSubDO(), order); },
            py::arg("order"), "Return a copy in 'host' or 'network' order.")
        .def("__bytes__", [](View const& view) { return BytesOf(view.Bytes().Data(), view.Bytes().size); })
        .def("__reduce__", ReduceView);
    BindRepr(type, [](View const& view) {
        return "<crrecord.View: DO type " + std::to_string(view.Fields().GetDOType()) + ", " +
               std::to_string(view.Segments().count) + " segments, " + NameOfOrder(view.Fields().IsInNetworkOrder()) +
               " order>";
    });
    module.def(
        "_view", [](py::bytes const& bytes, bool subDO) { return std::make_shared<View>(PinWhole(bytes), subDO); },
        py::arg("record"), py::arg("sub_do"));
}

} // namespace crrecord::python
