// The functions of the module as Python code sees them.

#include "functions.h"

#include "errors.h"

#include <cstdlib>
#include <cstring>

namespace crrecord::python {

namespace {

using Record = py::detail::function_record;

PyCFunctionWithKeywords dispatch;

PyMethodDef* DefinitionOf(py::handle function) {
    return reinterpret_cast<PyCFunctionObject*>(function.ptr())->m_ml;
}

PyCFunctionWithKeywords TargetOf(py::handle function) {
    return reinterpret_cast<PyCFunctionWithKeywords>(reinterpret_cast<void (*)()>(DefinitionOf(function)->ml_meth));
}

// pybind11 quotes all arguments, which may be megabytes.
void ShortenTypeError() {
    constexpr std::size_t kMostOfArguments = 200;
    py::error_already_set const error;
    auto text = py::cast<std::string>(py::str(error.value()));
    std::size_t const arguments = text.find("Invoked with: ");
    if (arguments != std::string::npos && text.size() - arguments > kMostOfArguments) {
        text.resize(arguments + kMostOfArguments);
        while (!text.empty() && (static_cast<unsigned char>(text.back()) & 0x80) != 0) { // a part of a character
            text.pop_back();
        }
        text += "...";
    }
    PyErr_SetString(PyExc_TypeError, text.c_str());
}

PyObject* Call(PyObject* self, PyObject* args, PyObject* kwargs) {
    ForgetLog();
    PyObject* const result = dispatch(self, args, kwargs);
    if (!result && PyErr_ExceptionMatches(PyExc_TypeError)) {
        try {
            ShortenTypeError();
        } catch (...) {
            SetCurrentException();
        }
    }
    return result;
}

Record const* RecordOf(py::handle function) {
    PyObject* const capsule = PyCFunction_GET_SELF(function.ptr());
    return static_cast<Record const*>(PyCapsule_GetPointer(capsule, PyCapsule_GetName(capsule)));
}

// "(self, *, checksum=False)", in the form that inspect reads.
std::string SignatureOf(Record const& record) {
    std::string signature;
    for (std::size_t i = 0; i < record.nargs; ++i) {
        signature += signature.empty() ? "" : ", ";
        if (i == record.nargs_pos) {
            signature += "*, ";
        }
        if (i >= record.args.size()) {
            signature += i == 0 && record.is_method ? "self" : "arg" + std::to_string(i);
            continue;
        }
        py::detail::argument_record const& argument = record.args[i];
        signature += argument.name;
        if (argument.value) {
            signature +=
                std::string("=") + (argument.descr ? argument.descr : py::cast<std::string>(py::repr(argument.value)));
        }
    }
    return "(" + signature + ")";
}

void Finish(py::handle function) {
    if (!function || !PyCFunction_Check(function.ptr()) || TargetOf(function) != dispatch) {
        return;
    }
    PyMethodDef* const definition = DefinitionOf(function);
    definition->ml_meth = reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(Call));
    Record const& record = *RecordOf(function);
    std::string const name = record.name;
    if (record.next || (name.starts_with("__") && name != "__init__")) {
        return; // overloads, and methods whose signature Python knows
    }
    std::string const text = name + SignatureOf(record) + "\n--\n\n" + (record.doc ? record.doc : "");
    std::free(const_cast<char*>(definition->ml_doc)); // pybind11 allocates it, and frees it so
    definition->ml_doc = strdup(text.c_str());
}

// The function in a method, static method or one of the two of a property.
py::handle FunctionIn(py::handle member) {
    if (!member || member.is_none()) {
        return {};
    }
    return PyInstanceMethod_Check(member.ptr()) ? PyInstanceMethod_GET_FUNCTION(member.ptr()) : member;
}

void FinishClass(py::handle type) {
    for (auto const& [name, member] : py::dict(type.attr("__dict__"))) {
        if (py::isinstance(member, py::reinterpret_borrow<py::object>(reinterpret_cast<PyObject*>(&PyProperty_Type)))) {
            Finish(FunctionIn(member.attr("fget")));
            Finish(FunctionIn(member.attr("fset")));
        } else if (py::isinstance<py::staticmethod>(member)) {
            Finish(FunctionIn(member.attr("__func__")));
        } else {
            Finish(FunctionIn(member));
        }
    }
}

} // namespace

void FinishFunctions(py::module_& module) {
    dispatch = TargetOf(py::cpp_function([] {}));
    for (auto const& [name, member] : py::dict(module.attr("__dict__"))) {
        if (py::isinstance<py::type>(member)) {
            FinishClass(member);
        } else {
            Finish(FunctionIn(member));
        }
    }
}

} // namespace crrecord::python
