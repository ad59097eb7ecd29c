// DORecord: the class over one DO record. All calls hold the GIL, so only one thread at a time uses a record.

#include "base/byteorder.h"
#include "construction.h"
#include "diagnosis.h"
#include "do_fields.h"
#include "enums.h"
#include "references.h"
#include "view.h"

#include <pybind11/stl.h>

#include <crrecord/DORecord.h>

#include <vector>

namespace crrecord::python {

namespace {

using DORecordClass = py::class_<DORecord>;

// --- Forms ----------------------------------------------------------------------------------------------------------

std::string Text(DORecord const& record) {
    std::ostringstream stream;
    record.ToStream(stream, false);
    return stream.str();
}

void BindForms(DORecordClass& type) {
    type.def_property_readonly(
            "order", [](DORecord const& record) { return NameOfOrder(record.IsInNetworkOrder()); },
            "'host' or 'network'.")
        .def(
            "to_network",
            [](DORecord& record) {
                if (!record.IsInNetworkOrder()) {
                    record.HostToNetwork(0);
                }
            },
            "Convert the record to network order.")
        .def(
            "to_host",
            [](DORecord& record) {
                if (record.IsInNetworkOrder()) {
                    record.NetworkToHost(0);
                }
            },
            "Convert the record to host order.")
        .def("serialize", SerializedForm, py::kw_only(), py::arg("checksum") = false,
             "Return the exchange form; the record must be in host order.\n\n"
             "checksum: its head has the checksum of its body instead of the CRC of the record.")
        .def(
            "digest", [](DORecord const& record) { return DigestOf(record, true); },
            "Return one fingerprint for the object as a Digest, or None.")
        .def("text", Text, "Return the record as one line; the record must be in host order.")
        .def("__bytes__", [](DORecord const& record) {
            DORecordHeader const* const header = record.GetHeader();
            return BytesOf(header, record.GetHeaderSize());
        });
}

// --- Construction ---------------------------------------------------------------------------------------------------

std::unique_ptr<DORecord> FromForm(py::object const& form, unsigned int dotype, unsigned char fptype, bool subDO) {
    Slice const bytes = PinWhole(form);
    try {
        return WithoutGil(bytes, [&] {
            return std::make_unique<DORecord>(dotype, fptype, nullptr, 0, bytes.Data(), bytes.size, subDO);
        });
    } catch (Cr_ErrnoException const& error) {
        RaiseForForm(error, bytes, {.dotype = dotype, .fptype = fptype, .subDO = subDO});
    }
}

void BindConstruction(DORecordClass& type) {
    type.def(py::init([](py::iterable const& segments, unsigned long cid, std::optional<unsigned long> size,
                         unsigned long segmentSize, unsigned int crc, unsigned int ctime, unsigned int mtime,
                         unsigned char fptype, unsigned char dotype, py::object const& uniqueList) {
                 return FromSegments(segments, {cid, size, segmentSize, crc, ctime, mtime, fptype, dotype, uniqueList});
             }),
             py::arg("segments"), py::kw_only(), py::arg("cid"), py::arg("size") = py::none(),
             py::arg("segment_size") = 0, py::arg("crc") = 0, py::arg("ctime") = 0, py::arg("mtime") = 0,
             py::arg("fptype"), py::arg("dotype") = CR_DO_TYPE_8_BYTE_OFFSET, py::arg("unique_list") = py::none(),
             "Build a record in host order from segments, each (fingerprint, size, offset, dcid).\n\n"
             "size: by default the end of the last segment. ctime, mtime: 0 means now.")
        .def_static(
            "from_entries",
            [](py::object const& entries, py::object const& dcids, unsigned long cid, unsigned long size,
               unsigned long segmentSize, unsigned int crc, unsigned int ctime, unsigned int mtime,
               unsigned char fptype, unsigned char dotype, py::object const& uniqueList) {
                return FromEntries(entries, dcids,
                                   {cid, size, segmentSize, crc, ctime, mtime, fptype, dotype, uniqueList});
            },
            py::arg("entries"), py::arg("dcids"), py::kw_only(), py::arg("cid"), py::arg("size"),
            py::arg("segment_size") = 0, py::arg("crc") = 0, py::arg("ctime") = 0, py::arg("mtime") = 0,
            py::arg("fptype"), py::arg("dotype") = CR_DO_TYPE_8_BYTE_OFFSET, py::arg("unique_list") = py::none(),
            "Build a record from packed entries and 64-bit containers, as in a record in host order.")
        .def_static(
            "from_bloom",
            [](py::object const& bitmap, unsigned long cid, unsigned long size, unsigned long segmentSize,
               unsigned int crc, unsigned int ctime, unsigned int mtime, unsigned char fptype,
               py::object const& uniqueList) {
                return FromBloom(
                    bitmap, {cid, size, segmentSize, crc, ctime, mtime, fptype, CR_DO_TYPE_BLOOM_FILTER, uniqueList});
            },
            py::arg("bitmap"), py::kw_only(), py::arg("cid"), py::arg("size"), py::arg("segment_size") = 0,
            py::arg("crc") = 0, py::arg("ctime") = 0, py::arg("mtime") = 0, py::arg("fptype"),
            py::arg("unique_list") = py::none(),
            "Build a record of DO type 4, with a bloom bitmap instead of segments.")
        .def_static(
            "from_buffer", [](py::object const& buffer, bool subDO) { return RecordFrom(PinWhole(buffer), subDO); },
            py::arg("buffer"), py::kw_only(), py::arg("sub_do") = false,
            "Copy one stored record in either order; the copy is in host order.")
        .def_static(
            "from_form", FromForm, py::arg("form"), py::kw_only(), py::arg("dotype"), py::arg("fptype"),
            py::arg("sub_do") = false,
            "Build a record from an exchange form. For a bloom record, call append_unique_list to convert its list.");
}

// --- Fields ---------------------------------------------------------------------------------------------------------

// The setter of the library logs invalid flags and does not store them.
void SetFlags(DORecord& record, unsigned short flags) {
    record.setFlags(flags);
    if (record.GetFlags() != flags) {
        throw Cr_ErrnoException(CR_STATUS_INVALID, "invalid flags for DO", nullptr);
    }
}

// Copies the fields first: creating a Python object may run other code, which may change the record.
py::list Segments(DORecord const& record) {
    DOSegmentRange const range = record.Segments();
    std::vector<crfp_digest_t> fingerprints;
    std::vector<DOSegment> copies(range.begin(), range.end());
    fingerprints.reserve(copies.size());
    for (DOSegment& segment : copies) {
        segment.fingerprint.data = fingerprints.emplace_back(segment.fingerprint.Copy()).bytes;
    }
    DOSegmentSource const source = range.GetSource(); // its layout, not its bytes
    py::list segments;
    for (DOSegment const& segment : copies) {
        segments.append(SegmentOf(segment, source));
        CheckSignals(static_cast<py::ssize_t>(segments.size()));
    }
    return segments;
}

py::list UniqueList(DORecord const& record) {
    DOUniqueDCIDRange const range = record.UniqueDCIDs();
    std::vector<DOUniqueDCID> const copies(range.begin(), range.end());
    py::list list;
    for (DOUniqueDCID const& entry : copies) {
        list.append(py::make_tuple(entry.dcid, entry.bytes));
        CheckSignals(static_cast<py::ssize_t>(list.size()));
    }
    return list;
}

// The conversion of a received bloom record byte-swaps length word and list, so a second one would undo the first.
void AppendUniqueList(DORecord& record) {
    if (record.IsInNetworkOrder()) { // the list's count could not be read back
        Raise(CR_STATUS_INVALID, "append_unique_list needs a record in host order");
    }
    if (record.GetBloom()) {
        auto const length = Load<std::uint32_t>(record.GetBloomStart());
        if (length == record.GetBSize() && length != ByteSwapped(length)) {
            Raise(CR_STATUS_INVALID, "the list of the bloom record is in host order");
        }
    }
    Require(record.AppendBloomAndUniqueDCIDList());
}

// Validates, so that the bytes make a record when they are read back.
py::object ReduceDORecord(DORecord const& record) {
    py::bytes const bytes = BytesOf(record.GetHeader(), record.GetHeaderSize());
    RequireGood(PinWhole(bytes), {.expected = Expected::DataObject, .subDO = record.IsSubDO()});
    return PickleOf("_do_record", bytes, record.IsSubDO(), NameOfOrder(record.IsInNetworkOrder()));
}

std::unique_ptr<DORecord> RestoreDORecord(py::bytes const& bytes, bool subDO, std::string const& order) {
    bool const network = IsNetworkOrder(order);
    std::unique_ptr<DORecord> record = RecordFrom(PinWhole(bytes), subDO);
    if (network) {
        record->HostToNetwork(0);
    }
    return record;
}

void BindFields(DORecordClass& type) {
    type.def_property("flags", &DORecord::GetFlags, SetFlags, "Bits 2 and 4 only.")
        .def_property("check_time", &DORecord::GetCheckTime, &DORecord::setCheckTime, "Time of the last check.")
        .def_property("cid", &DORecord::GetDCID, &DORecord::setDCID, "Container of the record itself.")
        .def_property("sub_do", &DORecord::IsSubDO, &DORecord::SetSubDO, "True if segments may have up to 4 GiB.")
        .def_property_readonly("record_size", &DORecord::GetHeaderSize, "Bytes of the record.")
        .def_property_readonly("size", &DORecord::GetSize, "Bytes of the object.")
        .def_property_readonly("segment_size", &DORecord::GetSsize, "Segment size of DO types 0 and 1.")
        .def_property_readonly("crc", &DORecord::GetCrc, "The checksum of the creator.")
        .def_property_readonly("ctime", &DORecord::GetCTime, "Time of creation.")
        .def_property_readonly("mtime", &DORecord::GetMTime, "Time of the last change.")
        .def_property_readonly(
            "fptype", [](DORecord const& record) { return FPTypeMember(record.GetFPType()); }, "Fingerprint type.")
        .def_property_readonly(
            "dotype", [](DORecord const& record) { return DOTypeMember(record.GetDOType()); }, "DO type.")
        .def_property_readonly("segments", Segments, "The segments, as a list of Segment.")
        .def_property_readonly("unique_list", UniqueList, "Pairs of container and bytes of the object in it.")
        .def("append_unique_list", AppendUniqueList,
             "Compute the list of containers and store it. The record must have no references yet.")
        .def("container_sizes", ContainerSizesOf,
             "Return a dict of container to bytes: the unique list, plus the record in its container.");
}

} // namespace

void BindDORecord(py::module_& module) {
    DORecordClass type(module, "DORecord", "The record of one stored object.");
    BindConstruction(type);
    BindFields(type);
    BindRecordReferences(type);
    BindForms(type);
    type.def("__reduce__", ReduceDORecord)
        .def(
            "__eq__",
            [](DORecord const& record, py::object const& other) -> py::object {
                if (!py::isinstance<DORecord>(other)) {
                    return py::reinterpret_borrow<py::object>(Py_NotImplemented);
                }
                return py::bool_(record == py::cast<DORecord const&>(other));
            },
            py::arg("other"));
    BindRepr(type, [](DORecord const& record) {
        return "<crrecord.DORecord: DO type " + std::to_string(record.GetDOType()) + ", " +
               std::to_string(record.GetNfp()) + " segments>";
    });
    module.def("_do_record", RestoreDORecord, py::arg("record"), py::arg("sub_do"), py::arg("order"));
}

} // namespace crrecord::python
