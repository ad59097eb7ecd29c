#include "columns/sources.h"

#include "enums.h"

#include <cerrno>

namespace crrecord::python::columns {

namespace {

// Buffers are released with the GIL, by whichever thread drops the last reader; never after the interpreter's end.
void ReleaseSources(std::vector<Source> const* sources) {
    if (Py_IsInitialized()) {
        py::gil_scoped_acquire const gil;
        delete sources;
    }
}

Source SourceOf(py::handle object) {
    if (IsPath(object)) {
        PyObject* encoded = nullptr; // by PyUnicode_FSConverter, which rejects a NUL
        if (PyUnicode_FSConverter(object.ptr(), &encoded) == 0) {
            throw py::error_already_set();
        }
        return {nullptr, std::string(py::reinterpret_steal<py::bytes>(encoded))};
    }
    return {std::make_shared<PinnedBuffer const>(object), {}};
}

// Texts with a path have the bytes of the file system.
py::object Decoded(std::string const& text) {
    PyObject* const decoded = PyUnicode_DecodeFSDefaultAndSize(text.data(), static_cast<py::ssize_t>(text.size()));
    if (!decoded) {
        throw py::error_already_set();
    }
    return py::reinterpret_steal<py::object>(decoded);
}

} // namespace

bool IsPath(py::handle object) {
    return PyUnicode_Check(object.ptr()) || py::hasattr(object, "__fspath__");
}

Sources SourcesOf(py::object const& object) {
    auto sources = std::make_unique<std::vector<Source>>();
    if (IsPath(object) || PyObject_CheckBuffer(object.ptr())) {
        sources->push_back(SourceOf(object));
    } else if (py::hasattr(object, "readline")) { // its lines would be the sources
        throw py::type_error("a file object is no source: pass its path or its bytes");
    } else {
        for (py::handle const item : object) {
            sources->push_back(SourceOf(item));
            CheckSignals(static_cast<py::ssize_t>(sources->size()));
        }
    }
    return Sources(sources.release(), ReleaseSources);
}

RecordReader::Options ReaderOptions(std::string const& onError, bool subDO) {
    if (onError != "raise" && onError != "skip") {
        throw py::value_error("on_error is 'raise' or 'skip'");
    }
    return {.skipsBad = onError == "skip", .subDO = subDO};
}

void RethrowForPython() {
    try {
        throw;
    } catch (BadRecord const& bad) {
        py::object const error =
            PythonType("Error")(StatusMember(CR_STATUS_CORRUPT_RECORD), Decoded(bad.record + ": " + bad.reason),
                                FindingsOf(bad.findings), bad.position);
        PyErr_SetObject(PythonType("Error").ptr(), error.ptr());
        throw py::error_already_set();
    } catch (ReadError const& failure) {
        errno = failure.number;
        PyErr_SetFromErrnoWithFilenameObject(PyExc_OSError, Decoded(failure.path).ptr());
        throw py::error_already_set();
    }
}

} // namespace crrecord::python::columns
