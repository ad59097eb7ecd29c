// Validation of buffers, and findings.

#include "diagnosis.h"

#include <crrecord/DORecordHeader.h>
#include <crrecord/SOmarshall.h>
#include <crrecord/probe.h>

#include <algorithm>

namespace crrecord::python {

namespace {

struct Collection {
    std::vector<Found> findings;
    std::size_t limit;
};

bool Collect(cr_finding_t const* finding, void* context) {
    auto& collection = *static_cast<Collection*>(context);
    if (collection.findings.size() < collection.limit) {
        collection.findings.push_back({finding->code, finding->severity, finding->offset, finding->found,
                                       finding->expected, finding->field, finding->message});
    }
    return collection.findings.size() < collection.limit;
}

// The text of the exception is that of the first error.
char const* ReasonOf(Diagnosis const& diagnosis) noexcept {
    auto const error = std::find_if(diagnosis.findings.begin(), diagnosis.findings.end(),
                                    [](Found const& found) { return found.severity == CR_FINDING_ERROR; });
    return error == diagnosis.findings.end() ? nullptr : error->message.c_str();
}

cr_status_t Walk(std::span<unsigned char const> bytes, DiagnosisOptions const& options, Collection& collection) {
    cr_record_probe_t const probe = CRRecordProbe(bytes.data(), bytes.size());
    bool const network = probe.network_order != 0;
    bool const isSegment =
        options.expected == Expected::ByProbe ? probe.kind == CR_RECORD_SEGMENT : options.expected == Expected::Segment;
    if (isSegment) {
        return SegmentRecordDiagnose(bytes.data(), bytes.size(),
                                     (network ? CR_SO_NETWORK_ORDER : 0) |
                                         (options.allowReferences ? 0 : CR_SO_NO_TASKIDS),
                                     Collect, &collection);
    }
    return DORecordDiagnose(bytes.data(), bytes.size(),
                            (network ? CR_DO_NETWORK_ORDER : 0) | (options.subDO ? CR_DO_SUB_DO : 0) |
                                (options.allowReferences ? 0 : CR_DO_NO_REFERENCES),
                            Collect, &collection);
}

py::list DiagnoseObject(py::object const& buffer, bool subDO, bool references, std::size_t limit) {
    return FindingsOf(
        Diagnose(PinWhole(buffer), {.subDO = subDO, .allowReferences = references, .limit = limit}).findings);
}

Diagnosis DiagnoseForm(Slice const& form, FormOptions const& options) {
    Collection collection{{}, options.limit};
    unsigned int const bits = (options.checksum ? CR_DO_FORM_CHECKSUM : 0) | (options.subDO ? CR_DO_SUB_DO : 0);
    cr_status_t const status = WithoutGil(form, [&] {
        return DORecordSerializedDiagnose(form.Data(), form.size, options.dotype, options.fptype, bits, Collect,
                                          &collection);
    });
    return {status, std::move(collection.findings)};
}

py::list DiagnoseFormObject(py::object const& buffer, unsigned int dotype, unsigned char fptype, bool checksum,
                            bool subDO, std::size_t limit) {
    Diagnosis const diagnosis = DiagnoseForm(
        PinWhole(buffer), {.dotype = dotype, .fptype = fptype, .checksum = checksum, .subDO = subDO, .limit = limit});
    if (diagnosis.status == CR_STATUS_INVALID) {
        Raise(diagnosis.status, "unknown DO type or fingerprint type");
    }
    return FindingsOf(diagnosis.findings);
}

py::object Probe(py::object const& buffer) {
    Slice const bytes = PinWhole(buffer);
    cr_record_probe_t const probe = CRRecordProbe(bytes.Data(), bytes.size);
    if (probe.kind == CR_RECORD_UNKNOWN) {
        return py::none();
    }
    return MakeTuple(PythonType("Probe"), probe.kind == CR_RECORD_DO ? "do" : "segment",
                     NameOfOrder(probe.network_order != 0), probe.head_size, probe.recorded_size, probe.counted_size);
}

} // namespace

Diagnosis DiagnoseBytes(std::span<unsigned char const> bytes, DiagnosisOptions const& options) {
    Collection collection{{}, options.limit};
    cr_status_t const status = Walk(bytes, options, collection);
    return {status, std::move(collection.findings)};
}

Diagnosis Diagnose(Slice const& bytes, DiagnosisOptions const& options) {
    return WithoutGil(bytes, [&] { return DiagnoseBytes({bytes.Data(), bytes.size}, options); });
}

void RequireGood(Slice const& bytes, DiagnosisOptions const& options) {
    Diagnosis const diagnosis = Diagnose(bytes, options);
    if (diagnosis.status != CR_STATUS_OK) {
        Raise(diagnosis.status, ReasonOf(diagnosis), diagnosis.findings);
    }
}

void RaiseForForm(Cr_ErrnoException const& error, Slice const& form, FormOptions const& options) {
    Diagnosis const diagnosis = DiagnoseForm(form, options);
    char const* const reason = *error.what() ? error.what() : ReasonOf(diagnosis);
    Raise(error.GetStatus(), reason, diagnosis.findings);
}

void BindDiagnosis(py::module_& module) {
    constexpr std::size_t kManyFindings = 10'000;
    module.def("diagnose", DiagnoseObject, py::arg("buffer"), py::kw_only(), py::arg("sub_do") = false,
               py::arg("references") = true, py::arg("limit") = kManyFindings,
               "Return the findings of a record of either kind, in either order, errors first.\n\n"
               "sub_do: allow segments up to 4 GiB. references=False: allow no references. limit: the most findings.");
    module.def("diagnose_form", DiagnoseFormObject, py::arg("buffer"), py::kw_only(), py::arg("dotype"),
               py::arg("fptype"), py::arg("checksum") = false, py::arg("sub_do") = false,
               py::arg("limit") = kManyFindings,
               "Return the findings of an exchange form of a DO record.\n\n"
               "checksum: its head has the checksum of its body.");
    module.def(
        "validate",
        [](py::object const& buffer, bool subDO, bool references) {
            RequireGood(PinWhole(buffer), {.subDO = subDO, .allowReferences = references});
        },
        py::arg("buffer"), py::kw_only(), py::arg("sub_do") = false, py::arg("references") = true,
        "Raise Error, with the findings, unless the buffer is one valid record of either kind, in either order.");
    module.def("probe", Probe, py::arg("buffer"),
               "Return kind, byte order and sizes stored at the start of a buffer; None for an unknown kind.\n\n"
               "The record is not validated.");
}

} // namespace crrecord::python
