// Statuses and findings of the library as crrecord.Error.

#include "errors.h"

#include <iterator>

namespace crrecord::python {

namespace {

struct NamedStatus {
    char const* name;
    cr_status_t status;
};

constexpr NamedStatus kStatuses[] = {
    {"OK", CR_STATUS_OK},
    {"INVALID", CR_STATUS_INVALID},
    {"NO_MEMORY", CR_STATUS_NO_MEMORY},
    {"CORRUPT_RECORD", CR_STATUS_CORRUPT_RECORD},
    {"NULL_ARGUMENT", CR_STATUS_NULL_ARGUMENT},
    {"NOT_SUPPORTED", CR_STATUS_NOT_SUPPORTED},
    {"NOT_FOUND", CR_STATUS_NOT_FOUND},
    {"CORRUPT_DATA", CR_STATUS_CORRUPT_DATA},
    {"INVALID_FP_TYPE", CR_STATUS_INVALID_FP_TYPE},
    {"INVALID_DO_TYPE", CR_STATUS_INVALID_DO_TYPE},
};

void SetError(cr_status_t status, char const* text, std::vector<Found> const& findings) {
    char const* const said = text && *text ? text : CRStatusToStringA(status);
    py::object const type = PythonType("Error");
    // A text may quote bytes of a record, which need not be UTF-8.
    auto const decoded = py::reinterpret_steal<py::object>(
        PyUnicode_DecodeUTF8(said, static_cast<py::ssize_t>(std::char_traits<char>::length(said)), "backslashreplace"));
    PyErr_SetObject(type.ptr(), type(static_cast<int>(status), decoded, FindingsOf(findings)).ptr());
}

} // namespace

py::object PythonType(char const* name) {
    // Never released: static destruction runs after the end of the interpreter.
    static auto const* const types = new py::module_(py::module_::import("crrecord._types"));
    return types->attr(name);
}

py::list FindingsOf(std::vector<Found> const& findings) {
    py::list list;
    for (Found const& finding : findings) {
        list.append(MakeTuple("Finding", finding.code, CRFindingName(finding.code),
                              finding.severity == CR_FINDING_ERROR ? "error" : "note", finding.offset, finding.found,
                              finding.expected, finding.field, finding.message));
    }
    return list;
}

void Raise(cr_status_t status, char const* text, std::vector<Found> const& findings) {
    SetError(status, text, findings);
    throw py::error_already_set();
}

void Require(cr_status_t status) {
    if (status != CR_STATUS_OK) {
        Raise(status);
    }
}

void BindErrors(py::module_& module) {
    py::register_exception_translator([](std::exception_ptr failure) {
        try {
            std::rethrow_exception(failure);
        } catch (Cr_ErrnoException const& error) {
            SetError(error.GetStatus(), error.what(), {});
        }
    });
    py::dict statuses;
    for (NamedStatus const& named : kStatuses) {
        statuses[named.name] = static_cast<int>(named.status);
    }
    module.attr("Status") =
        py::module_::import("enum").attr("IntEnum")("Status", statuses, py::arg("module") = "crrecord");
    module.attr("Error") = PythonType("Error");
}

} // namespace crrecord::python
