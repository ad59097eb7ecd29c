// SegmentView: a validated segment record, read in place.

#include "diagnosis.h"
#include "enums.h"
#include "segment_fields.h"
#include "view.h"

#include "SOmarshall/layout.h"

#include <crrecord/probe.h>

#include <cstdlib>
#include <memory>

namespace crrecord::python {

namespace {

// The fixed part of a record, in host order. It is read once, since the bytes may change.
struct FixedPart {
    _SegmentDBRecord fields;
    bool networkOrder;
};

// Raises crrecord.Error unless the bytes are a valid record.
FixedPart Validated(Slice const& bytes) {
    RequireGood(bytes, {.expected = Expected::Segment});
    FixedPart fixed{segment::ReadHeader(bytes.Data()), false};
    fixed.networkOrder = CRRecordProbe(&fixed.fields, sizeof fixed.fields).network_order != 0;
    if (fixed.networkOrder) {
        fixed.fields = ToHost(fixed.fields);
    }
    // Another process or thread may have changed the counts since they were validated.
    if (segment::RecordSize(fixed.fields.ntaskids, fixed.fields.nfp, fixed.fields.fptype) != bytes.size ||
        !CRFPTypeIsValid(fixed.fields.fptype)) {
        Raise(CR_STATUS_CORRUPT_RECORD, "the record was changed during validation");
    }
    return fixed;
}

_SegmentDBRecord* RecordIn(py::bytes const& copy) {
    return reinterpret_cast<_SegmentDBRecord*>(PyBytes_AS_STRING(copy.ptr()));
}

// Converts a private copy and validates it again, since the bytes may have changed since the view was made.
py::bytes ConvertedSegment(SegmentView const& view, std::string const& order, bool stripTaskIds) {
    bool const toNetwork = IsNetworkOrder(order);
    py::bytes const copy = BytesOf(view.Bytes().Data(), view.Bytes().size);
    FixedPart const fixed = Validated(PinWhole(copy));
    if (toNetwork == fixed.networkOrder && !stripTaskIds) {
        return copy;
    }
    _SegmentDBRecord* const record = RecordIn(copy);
    // Only a conversion strips task ids, so a record that keeps its order is converted twice.
    unsigned long const stripped = stripTaskIds ? std::uint64_t{segment::kTaskIdSize} * fixed.fields.ntaskids : 0;
    if (toNetwork == fixed.networkOrder) {
        (toNetwork ? SegmentRecordNtoh : SegmentRecordHton)(record, record, 0);
    }
    (toNetwork ? SegmentRecordHton : SegmentRecordNtoh)(record, record, stripTaskIds ? CR_SO_STRIP_TASKIDS : 0);
    return BytesOf(record, view.Bytes().size - stripped);
}

py::bytes Serialized(SegmentView const& view) {
    py::bytes const host = ConvertedSegment(view, "host", false);
    void* form = nullptr;
    unsigned long size = 0;
    Require(SegmentRecordSerialize(RecordIn(host), &form, &size));
    std::unique_ptr<void, void (*)(void*)> const owner(form, std::free);
    return BytesOf(form, size);
}

using Fixed = _SegmentDBRecord;

// read(fields) reads one member. A pointer to a member would lose that the structure is packed.
template <class Read>
auto SegmentFieldGetter(Read read) {
    return [read](SegmentView const& view) { return read(view.Fields()); };
}

} // namespace

SegmentView::SegmentView(Slice bytes) : bytes_(std::move(bytes)) {
    FixedPart const fixed = Validated(bytes_);
    networkOrder_ = fixed.networkOrder;
    fields_ = fixed.fields;
}

Array SegmentView::TaskIds() const {
    return Array(bytes_.owner, bytes_.Data() + CR_SO_FIXED_SIZE, fields_.ntaskids, segment::kTaskIdSize,
                 Field{"task", 0, segment::kTaskIdSize, NumberIn(networkOrder_)});
}

Array SegmentView::Fingerprints() const {
    unsigned int const width = CRFPDigestSize(fields_.fptype);
    return Array(bytes_.owner,
                 bytes_.Data() + CR_SO_FIXED_SIZE + std::uint64_t{segment::kTaskIdSize} * fields_.ntaskids, fields_.nfp,
                 width, Field{"fingerprint", 0, width, Content::Bytes});
}

void BindSegmentView(py::module_& module) {
    py::class_<SegmentView, std::shared_ptr<SegmentView>> type(
        module, "SegmentView", "A valid segment record in a buffer, in either byte order, read in place.");
    type.def(py::init([](py::object const& buffer) { return std::make_shared<SegmentView>(PinWhole(buffer)); }),
             py::arg("buffer"),
             "Validate and keep the buffer; raise Error, with the findings, unless it is one valid segment record.")
        .def_property_readonly(
            "kind", [](SegmentView const&) { return "segment"; }, "'segment'.")
        .def_property_readonly(
            "order", [](SegmentView const& view) { return NameOfOrder(view.IsInNetworkOrder()); },
            "'host' or 'network'.")
        .def_property_readonly(
            "position", [](SegmentView const& view) { return view.Bytes().position; },
            "Offset of the record in the buffer.")
        .def_property_readonly("flags", SegmentFieldGetter([](Fixed const& fields) { return fields.flags; }), "0 or 2.")
        .def_property_readonly("record_size", SegmentFieldGetter([](Fixed const& fields) { return fields.recsize; }),
                               "Bytes of the record.")
        .def_property_readonly("check_time", SegmentFieldGetter([](Fixed const& fields) { return fields.checktime; }),
                               "Time of the last check.")
        .def_property_readonly("path_id", SegmentFieldGetter([](Fixed const& fields) { return fields.pathid; }),
                               "The path, or the container.")
        .def_property_readonly("file_id", SegmentFieldGetter([](Fixed const& fields) { return fields.fileid; }),
                               "The file; 0 in a container.")
        .def_property_readonly(
            "dcid",
            [](SegmentView const& view) -> py::object {
                return RecordInContainer(view.Fields().fileid) ? py::object(py::int_(+view.Fields().pathid))
                                                               : py::object(py::none());
            },
            "The container; None for a segment in a file.")
        .def_property_readonly("size", SegmentFieldGetter([](Fixed const& fields) { return fields.size; }),
                               "Bytes of the segment.")
        .def_property_readonly("crc", SegmentFieldGetter([](Fixed const& fields) { return fields.CRC; }),
                               "The checksum of the creator.")
        .def_property_readonly(
            "key", [](SegmentView const& view) { return BytesOf(view.Fields().key, CR_SO_KEY_SIZE); },
            "33 bytes of key data.")
        .def_property_readonly(
            "fptype", [](SegmentView const& view) { return FPTypeMember(view.Fields().fptype); }, "Fingerprint type.")
        .def_property_readonly("crypto_mode", SegmentFieldGetter([](Fixed const& fields) { return fields.cryptomode; }),
                               "Not interpreted.")
        .def_property_readonly("key_index", SegmentFieldGetter([](Fixed const& fields) { return fields.keyindex; }),
                               "In the byte order of the writer.")
        .def_property_readonly("task_ids", &SegmentView::TaskIds, "Ids of the tasks that refer to the segment.")
        .def_property_readonly("fingerprints", &SegmentView::Fingerprints, "The fingerprints of the segment.")
        .def("to_bytes", ConvertedSegment, py::arg("order"), py::kw_only(), py::arg("strip_task_ids") = false,
             "Return a copy in 'host' or 'network' order, with or without task ids.")
        .def("serialize", Serialized, "Return the serialized form.")
        .def("__bytes__", [](SegmentView const& view) { return BytesOf(view.Bytes().Data(), view.Bytes().size); })
        .def("__reduce__", [](SegmentView const& view) {
            return PickleOf("_segment_view", BytesOf(view.Bytes().Data(), view.Bytes().size));
        });
    BindRepr(type, [](SegmentView const& view) {
        return "<crrecord.SegmentView: " + std::to_string(view.Fields().size) + " bytes, " +
               NameOfOrder(view.IsInNetworkOrder()) + " order>";
    });
    module.def(
        "_segment_view", [](py::bytes const& bytes) { return std::make_shared<SegmentView>(PinWhole(bytes)); },
        py::arg("record"));
}

} // namespace crrecord::python
