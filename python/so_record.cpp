// SORecord: the class over one segment record.

#include "diagnosis.h"
#include "enums.h"

#include <pybind11/stl.h>

#include <crrecord/SORecord.h>

#include <cstdlib>

namespace crrecord::python {

namespace {

char const* KeyIn(std::string const& key) {
    if (key.size() != CR_SO_KEY_SIZE) {
        throw py::value_error("a key has 33 bytes");
    }
    return key.data();
}

constexpr char kFlags[] = "flags are 0 or 2";
constexpr char kDcid[] = "a container is 1, or 64 and above";
constexpr char kFPType[] = "a fingerprint type is 0 to 3";

// Calls set(), whose refusal has no text.
template <class Set>
auto WithReason(char const* reason, Set set) {
    try {
        return set();
    } catch (Cr_ErrnoException const& error) {
        Raise(error.GetStatus(), *error.what() ? error.what() : reason);
    }
}

template <class Value>
auto Setter(void (SORecord::*set)(Value), char const* reason) {
    return [set, reason](SORecord& record, Value value) { WithReason(reason, [&] { (record.*set)(value); }); };
}

std::unique_ptr<SORecord> FromBuffer(Slice const& bytes) {
    try {
        return SORecord::FromBuffer(bytes.Data(), bytes.size);
    } catch (Cr_ErrnoException const& error) {
        Raise(error.GetStatus(), error.what(), Diagnose(bytes, {.expected = Expected::Segment}).findings);
    }
}

py::object ReduceSORecord(SORecord const& record) {
    return PickleOf("_so_record", BytesOf(record.GetHeader(), record.GetHeaderSize()),
                    NameOfOrder(record.IsInNetworkOrder()));
}

std::unique_ptr<SORecord> RestoreSORecord(py::bytes const& bytes, std::string const& order) {
    bool const network = IsNetworkOrder(order);
    std::unique_ptr<SORecord> record = FromBuffer(PinWhole(bytes));
    if (network) {
        record->HostToNetwork(0);
    }
    return record;
}

py::bytes SerializedSORecord(SORecord const& record) {
    if (record.IsInNetworkOrder()) {
        Raise(CR_STATUS_INVALID, "the record is in network order");
    }
    void* form = nullptr;
    unsigned long size = 0;
    Require(SegmentRecordSerialize(record.GetHeader(), &form, &size));
    std::unique_ptr<void, void (*)(void*)> const owner(form, std::free);
    return BytesOf(form, size);
}

} // namespace

void BindSORecord(py::module_& module) {
    py::class_<SORecord> type(module, "SORecord", "The record of one stored segment, 104 bytes, without task ids.");
    type.def(py::init([](unsigned int dcid, unsigned int size, unsigned int crc, std::optional<py::bytes> const& key,
                         unsigned short flags, unsigned char cryptoMode, unsigned char fptype) {
                 std::string const keyBytes = key ? std::string(*key) : std::string(CR_SO_KEY_SIZE, '\0');
                 auto const reason = std::string(kFlags) + "; " + kDcid + "; " + kFPType;
                 return WithReason(reason.c_str(), [&] {
                     return std::make_unique<SORecord>(flags, dcid, size, crc, KeyIn(keyBytes), cryptoMode, fptype);
                 });
             }),
             py::kw_only(), py::arg("dcid"), py::arg("size"), py::arg("crc") = 0, py::arg("key") = py::none(),
             py::arg("flags") = 0, py::arg("crypto_mode") = 0, py::arg("fptype") = 0,
             "Build a record in host order. dcid and size have 32 bits here; their setters accept 64 bits.\n"
             "key: 33 bytes; by default zeros.")
        .def_static(
            "from_buffer", [](py::object const& buffer) { return FromBuffer(PinWhole(buffer)); }, py::arg("buffer"),
            "Copy one stored record of 104 bytes in either order.")
        .def_property("flags", &SORecord::GetFlags, Setter(&SORecord::SetFlags, kFlags), "0 or 2.")
        .def_property("dcid", &SORecord::GetDCID, Setter(&SORecord::SetDCID, kDcid),
                      "The container: 1, or 64 and above.")
        .def_property_readonly("path_id", &SORecord::GetPathID, "The path, or the container.")
        .def_property_readonly("file_id", &SORecord::GetFileID, "The file; 0 in a container.")
        .def_property("size", &SORecord::GetSize, &SORecord::SetSize, "Bytes of the segment.")
        .def_property("crc", &SORecord::GetCRC, &SORecord::SetCRC, "The checksum of the creator.")
        .def_property("check_time", &SORecord::GetCheckTime, &SORecord::SetCheckTime, "Time of the last check.")
        .def_property(
            "fptype", [](SORecord const& record) { return FPTypeMember(record.GetFPType()); },
            Setter(&SORecord::SetFPType, kFPType), "Fingerprint type.")
        .def_property("crypto_mode", &SORecord::GetCryptoMode, &SORecord::SetCryptoMode, "Not interpreted.")
        .def_property("key_index", &SORecord::GetKeyIndex, &SORecord::SetKeyIndex, "In the byte order of the writer.")
        .def_property(
            "key", [](SORecord const& record) { return BytesOf(record.GetKey(), CR_SO_KEY_SIZE); },
            [](SORecord& record, py::bytes const& key) { record.SetKey(KeyIn(key)); }, "33 bytes of key data.")
        .def_property_readonly("record_size", &SORecord::GetHeaderSize, "104.")
        .def_property_readonly(
            "order", [](SORecord const& record) { return NameOfOrder(record.IsInNetworkOrder()); },
            "'host' or 'network'.")
        .def(
            "to_network", [](SORecord& record) { record.HostToNetwork(0); }, "Convert the record to network order.")
        .def(
            "to_host", [](SORecord& record) { record.NetworkToHost(0); }, "Convert the record to host order.")
        .def("serialize", SerializedSORecord, "Return the serialized form; the record must be in host order.")
        .def("__bytes__", [](SORecord const& record) { return BytesOf(record.GetHeader(), record.GetHeaderSize()); })
        .def("__reduce__", ReduceSORecord)
        .def(
            "__eq__",
            [](SORecord const& record, py::object const& other) -> py::object {
                if (!py::isinstance<SORecord>(other)) {
                    return py::reinterpret_borrow<py::object>(Py_NotImplemented);
                }
                return py::bool_(record == py::cast<SORecord const&>(other));
            },
            py::arg("other"));
    BindRepr(type, [](SORecord const& record) {
        return "<crrecord.SORecord: " + std::to_string(record.GetSize()) + " bytes in container " +
               std::to_string(record.GetDCID()) + ">";
    });
    module.def("_so_record", RestoreSORecord, py::arg("record"), py::arg("order"));
}

} // namespace crrecord::python
