// SegmentView: a validated segment record, read in place.

#include "diagnosis.h"
#include "view.h"

#include "SOmarshall/layout.h"

#include <crrecord/probe.h>

#include <cstdlib>
#include <memory>

namespace crrecord::python {

namespace {

// Returns: the fixed part of a valid record in host order. The counts are 0 during the conversion, which would
// otherwise convert the bytes after the fixed part, too.
_SegmentDBRecord FieldsOf(Slice const& bytes, bool networkOrder) {
    _SegmentDBRecord fields;
    std::memcpy(&fields, bytes.Data(), sizeof fields);
    if (networkOrder) {
        auto const ntaskids = ByteSwapped(fields.ntaskids);
        auto const nfp = ByteSwapped(fields.nfp);
        auto const recsize = ByteSwapped(fields.recsize);
        fields.ntaskids = fields.nfp = 0;
        SegmentRecordNtoh(&fields, &fields, 0);
        fields.ntaskids = ntaskids;
        fields.nfp = nfp;
        fields.recsize = recsize;
    }
    return fields;
}

Slice Validated(Slice bytes) {
    RequireGood(bytes, {.expected = Expected::Segment});
    return bytes;
}

bool IsInNetworkOrder(Slice const& bytes) {
    return CRRecordProbe(bytes.Data(), bytes.size).network_order != 0;
}

_SegmentDBRecord* RecordIn(py::bytes const& copy) {
    return reinterpret_cast<_SegmentDBRecord*>(PyBytes_AS_STRING(copy.ptr()));
}

// Converts a private copy and validates it again, since the bytes may have changed since the view was made.
py::bytes Converted(SegmentView const& view, std::string const& order, bool stripTaskIds) {
    if (order != "host" && order != "network") {
        throw py::value_error("the order is 'host' or 'network'");
    }
    py::bytes const copy = BytesOf(view.Bytes().Data(), view.Bytes().size);
    Slice const bytes = Validated(PinWhole(copy));
    bool const network = IsInNetworkOrder(bytes);
    bool const toNetwork = order == "network";
    if (toNetwork == network && !stripTaskIds) {
        return copy;
    }
    _SegmentDBRecord* const record = RecordIn(copy);
    // Only a conversion strips task ids, so a record that keeps its order is converted twice.
    unsigned long const stripped =
        stripTaskIds ? std::uint64_t{segment::kTaskIdSize} * FieldsOf(bytes, network).ntaskids : 0;
    if (toNetwork == network) {
        (toNetwork ? SegmentRecordNtoh : SegmentRecordHton)(record, record, 0);
    }
    (toNetwork ? SegmentRecordHton : SegmentRecordNtoh)(record, record, stripTaskIds ? CR_SO_STRIP_TASKIDS : 0);
    return BytesOf(record, bytes.size - stripped);
}

py::bytes Serialized(SegmentView const& view) {
    py::bytes const host = Converted(view, "host", false);
    void* form = nullptr;
    unsigned long size = 0;
    Require(SegmentRecordSerialize(RecordIn(host), &form, &size));
    std::unique_ptr<void, void (*)(void*)> const owner(form, std::free);
    return BytesOf(form, size);
}

template <class Value>
auto FieldGetter(Value _SegmentDBRecord::*field) {
    return [field](SegmentView const& view) { return view.Fields().*field; };
}

} // namespace

SegmentView::SegmentView(Slice bytes)
    : bytes_(Validated(std::move(bytes))), networkOrder_(python::IsInNetworkOrder(bytes_)),
      fields_(FieldsOf(bytes_, networkOrder_)) {}

Array SegmentView::TaskIds() const {
    return Array(bytes_.owner, bytes_.Data() + CR_SO_FIXED_SIZE, fields_.ntaskids, segment::kTaskIdSize,
                 {{"task", 0, segment::kTaskIdSize, NumberIn(networkOrder_)}});
}

Array SegmentView::Fingerprints() const {
    unsigned int const width = CRFPDigestSize(fields_.fptype);
    return Array(bytes_.owner,
                 bytes_.Data() + CR_SO_FIXED_SIZE + std::uint64_t{segment::kTaskIdSize} * fields_.ntaskids, fields_.nfp,
                 width, {{"fingerprint", 0, width, Content::Bytes}});
}

void BindSegmentView(py::module_& module) {
    py::class_<SegmentView, std::shared_ptr<SegmentView>>(
        module, "SegmentView", "A valid segment record in a buffer, in either byte order, read in place.")
        .def(py::init([](py::object const& buffer) { return std::make_shared<SegmentView>(PinWhole(buffer)); }),
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
        .def_property_readonly("flags", FieldGetter(&_SegmentDBRecord::flags), "0 or 2.")
        .def_property_readonly("record_size", FieldGetter(&_SegmentDBRecord::recsize), "Bytes of the record.")
        .def_property_readonly("check_time", FieldGetter(&_SegmentDBRecord::checktime), "Time of the last check.")
        .def_property_readonly("path_id", FieldGetter(&_SegmentDBRecord::pathid), "The path, or the container.")
        .def_property_readonly("file_id", FieldGetter(&_SegmentDBRecord::fileid), "The file; 0 in a container.")
        .def_property_readonly(
            "dcid",
            [](SegmentView const& view) -> py::object {
                return RecordInContainer(view.Fields().fileid) ? py::object(py::int_(+view.Fields().pathid))
                                                               : py::object(py::none());
            },
            "The container; None for a segment in a file.")
        .def_property_readonly("size", FieldGetter(&_SegmentDBRecord::size), "Bytes of the segment.")
        .def_property_readonly("crc", FieldGetter(&_SegmentDBRecord::CRC), "The checksum of the creator.")
        .def_property_readonly(
            "key", [](SegmentView const& view) { return BytesOf(view.Fields().key, CR_SO_KEY_SIZE); },
            "33 bytes of key data.")
        .def_property_readonly("fptype", FieldGetter(&_SegmentDBRecord::fptype), "Fingerprint type, 0 to 3.")
        .def_property_readonly("crypto_mode", FieldGetter(&_SegmentDBRecord::cryptomode), "Not interpreted.")
        .def_property_readonly("key_index", FieldGetter(&_SegmentDBRecord::keyindex),
                               "In the byte order of the writer.")
        .def_property_readonly("task_ids", &SegmentView::TaskIds, "Ids of the tasks that refer to the segment.")
        .def_property_readonly("fingerprints", &SegmentView::Fingerprints, "The fingerprints of the segment.")
        .def("to_bytes", Converted, py::arg("order"), py::kw_only(), py::arg("strip_task_ids") = false,
             "Return a copy in 'host' or 'network' order, with or without task ids.")
        .def("serialize", Serialized, "Return the serialized form.")
        .def("__bytes__", [](SegmentView const& view) { return BytesOf(view.Bytes().Data(), view.Bytes().size); })
        .def("__repr__", [](SegmentView const& view) {
            return "<crrecord.SegmentView: " + std::to_string(view.Fields().size) + " bytes, " +
                   NameOfOrder(view.IsInNetworkOrder()) + " order>";
        });
}

} // namespace crrecord::python
