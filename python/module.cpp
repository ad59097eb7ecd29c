// The extension module crrecord._crrecord.

#include "errors.h"
#include "functions.h"
#include "module_entry.h"

namespace crrecord::python {

namespace {

newfunc newOfPybind11;

PyObject* NewInstance(PyTypeObject* type, PyObject* arguments, PyObject* keywords) noexcept {
    try {
        if (py::detail::all_type_info(type).empty()) {
            throw py::type_error(std::string("cannot create an instance of ") + type->tp_name);
        }
        return newOfPybind11(type, arguments, keywords);
    } catch (...) {
        SetCurrentException();
        return nullptr;
    }
}

// The base class of all classes of pybind11 ends the process if it is instantiated. Pickle does that with protocol 0 to
// an object that it cannot pickle.
void GuardBaseClass() {
    auto* const base = reinterpret_cast<PyTypeObject*>(py::detail::get_internals().instance_base);
    if (base->tp_new != NewInstance) { // an earlier import may have failed after this
        newOfPybind11 = std::exchange(base->tp_new, NewInstance);
    }
}

void Fill(py::module_ module) {
    module.attr("__version__") = CRRECORD_VERSION;
    GuardBaseClass();
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

} // namespace

} // namespace crrecord::python

extern "C" PYBIND11_EXPORT PyObject* PyInit__crrecord() {
    using namespace crrecord::python;
    return PyModuleDef_Init(
        DefinitionOf<Fill>("_crrecord", "Records of a deduplicating content store. Import crrecord instead."));
}
