// The extension module crrecord._crrecord.

#include "functions.h"

namespace crrecord::python {

namespace {

void Fill(py::module_ module) {
    py::options options;
    options.disable_function_signatures(); // FinishFunctions adds those that inspect reads
    module.attr("__version__") = CRRECORD_VERSION;
    BindErrors(module);
    BindEnums(module);
    BindArray(module);
    BindDiagnosis(module);
    BindView(module);
    BindSegmentView(module);
    BindStream(module);
    BindColumns(module);
    BindReferences(module);
    BindDORecord(module);
    BindSORecord(module);
    FinishFunctions(module);
}

// Runs in each interpreter that imports the module, unlike the initialization that PYBIND11_MODULE makes, and before
// any call of pybind11, whose state belongs to one interpreter: in another one, each exception waits for ever.
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
        Fill(py::reinterpret_borrow<py::module_>(module));
        first = py::handle(module).inc_ref().ptr();
        return 0;
    } catch (py::error_already_set& error) {
        error.restore();
    } catch (std::exception const& error) {
        PyErr_SetString(PyExc_ImportError, error.what());
    }
    return -1;
}

PyModuleDef_Slot slots[] = {{Py_mod_exec, reinterpret_cast<void*>(Execute)}, {0, nullptr}};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT,
    "_crrecord",
    "Records of a deduplicating content store. Import crrecord instead.",
    0,
    nullptr,
    slots,
    nullptr,
    nullptr,
    nullptr,
};

} // namespace

} // namespace crrecord::python

extern "C" PYBIND11_EXPORT PyObject* PyInit__crrecord() {
    return PyModuleDef_Init(&crrecord::python::definition);
}
