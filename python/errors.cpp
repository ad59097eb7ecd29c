// Statuses and findings of the library as crrecord.Error.

#include "errors.h"

#include "enums.h"

#include <cstring>
#include <iterator>
#include <memory>
#include <new>

namespace crrecord::python {

namespace {

constexpr char kLogSink[] = "crrecord._crrecord._log_sink"; // the name of a capsule

// The last line that the library logged on this thread, which is the reason of a failure that has a status only.
// Not an array: if the modules contain the library, all their thread-local variables together have a few hundred bytes.
thread_local std::unique_ptr<char[]> logged;

char const* LoggedLine() noexcept {
    return logged ? logged.get() : "";
}

void KeepLine(cr_log_level_t level, cr_status_t, char const* message, void*) noexcept {
    if (level == CR_LOG_TRACE) {
        return;
    }
    if (!logged) {
        logged.reset(new (std::nothrow) char[Cr_ErrnoException::kMaxText + 1]());
    }
    if (logged) {
        std::strncpy(logged.get(), message, Cr_ErrnoException::kMaxText);
    }
}

void SetError(cr_status_t status, char const* text, std::vector<Found> const& findings) {
    char const* const said = text && *text ? text : *LoggedLine() ? LoggedLine() : CRStatusToStringA(status);
    py::object const type = PythonType("Error");
    // A text may quote bytes of a record, which need not be UTF-8.
    auto const decoded = py::reinterpret_steal<py::object>(
        PyUnicode_DecodeUTF8(said, static_cast<py::ssize_t>(std::char_traits<char>::length(said)), "backslashreplace"));
    PyErr_SetObject(type.ptr(), type(StatusMember(status), decoded, FindingsOf(findings)).ptr());
}

} // namespace

py::object PythonType(char const* name) {
    // Never released: static destruction runs after the end of the interpreter.
    static auto const* const types = new py::module_(py::module_::import("crrecord._types"));
    return types->attr(name);
}

py::object FilledTuple(py::handle type, std::initializer_list<py::handle> fields) {
    auto* const tupleType = reinterpret_cast<PyTypeObject*>(type.ptr());
    auto tuple =
        py::reinterpret_steal<py::object>(tupleType->tp_alloc(tupleType, static_cast<py::ssize_t>(fields.size())));
    if (!tuple) {
        throw py::error_already_set();
    }
    py::ssize_t i = 0;
    for (py::handle const field : fields) {
        if (!field) {
            throw py::error_already_set();
        }
        PyTuple_SET_ITEM(tuple.ptr(), i++, field.inc_ref().ptr());
    }
    return tuple;
}

std::string ShortRepr(py::handle object) {
    constexpr std::size_t kLongest = 100;
    // In ASCII, so that no character is cut and no surrogate is left, which have no UTF-8.
    auto const ascii = py::reinterpret_steal<py::object>(PyObject_ASCII(object.ptr()));
    if (!ascii) {
        throw py::error_already_set();
    }
    auto const text = py::cast<std::string>(ascii);
    return text.size() <= kLongest ? text : text.substr(0, kLongest) + "...";
}

py::list FindingsOf(std::vector<Found> const& findings) {
    py::list list;
    for (Found const& finding : findings) {
        list.append(MakeTuple(PythonType("Finding"), finding.code, CRFindingName(finding.code),
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

void ForgetLog() noexcept {
    if (logged) {
        logged[0] = '\0';
    }
}

void SetCurrentException() {
    try {
        try {
            throw;
        } catch (py::error_already_set& error) {
            error.restore();
        } catch (Cr_ErrnoException const& error) {
            SetError(error.GetStatus(), error.what(), {});
        } catch (py::builtin_exception const& error) {
            error.set_error();
        } catch (std::bad_alloc const&) {
            PyErr_NoMemory();
        }
    } catch (py::error_already_set& error) { // of SetError
        error.restore();
    } catch (std::exception const& error) {
        PyErr_SetString(PyExc_RuntimeError, error.what());
    }
}

void BindErrors(py::module_& module) {
    CRLogSetSink(KeepLine, nullptr);
    module.attr("_log_sink") = py::capsule(reinterpret_cast<void const*>(KeepLine), kLogSink);
    py::register_exception_translator([](std::exception_ptr failure) {
        try {
            std::rethrow_exception(failure);
        } catch (Cr_ErrnoException const& error) {
            SetError(error.GetStatus(), error.what(), {});
        }
    });
    module.attr("Error") = PythonType("Error");
}

void UseErrors() {
    void* const sink = PyCapsule_Import(kLogSink, 0);
    if (!sink) {
        throw py::error_already_set();
    }
    // The same sink again if both modules use the shared library.
    CRLogSetSink(reinterpret_cast<cr_log_sink_t>(sink), nullptr);
    UseStatuses(py::module_::import("crrecord._crrecord").attr("Status"));
}

} // namespace crrecord::python
