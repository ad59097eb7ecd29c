// The entry of the extension modules.

#pragma once

#include "bindings.h"

namespace crrecord::python {

// Runs in each interpreter that imports the module, unlike the initialization that PYBIND11_MODULE makes, and before
// any call of pybind11, whose state belongs to one interpreter: in another one, each exception waits for ever.
template <void (*fill)(py::module_ module)>
int Execute(PyObject* module) noexcept {
    static PyObject* first = nullptr;
    if (PyInterpreterState_Get() != PyInterpreterState_Main()) {
        PyErr_SetString(PyExc_ImportError, "crrecord cannot be imported in a subinterpreter");
        return -1;
    }
    if (first) { // removed from sys.modules and imported again: types are registered once
        return PyDict_Update(PyModule_GetDict(module), PyModule_GetDict(first));
    }
    try {
        py::options options;
        options.disable_function_signatures(); // FinishFunctions adds those that inspect reads
        fill(py::reinterpret_borrow<py::module_>(module));
        first = py::handle(module).inc_ref().ptr();
        return 0;
    } catch (py::error_already_set& error) {
        error.restore();
    } catch (std::exception const& error) {
        PyErr_SetString(PyExc_ImportError, error.what());
    }
    return -1;
}

// The definition of a module that `fill` fills.
template <void (*fill)(py::module_ module)>
PyModuleDef* DefinitionOf(char const* name, char const* text) {
    static PyModuleDef_Slot slots[] = {{Py_mod_exec, reinterpret_cast<void*>(Execute<fill>)}, {0, nullptr}};
    static PyModuleDef definition = {
        PyModuleDef_HEAD_INIT, name, text, 0, nullptr, slots, nullptr, nullptr, nullptr,
    };
    return &definition;
}

} // namespace crrecord::python
