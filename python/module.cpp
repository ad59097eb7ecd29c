// The extension module crrecord._crrecord.

#include "functions.h"
#include "module_entry.h"

namespace crrecord::python {

namespace {

void Fill(py::module_ module) {
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

} // namespace

} // namespace crrecord::python

extern "C" PYBIND11_EXPORT PyObject* PyInit__crrecord() {
    using namespace crrecord::python;
    return PyModuleDef_Init(
        DefinitionOf<Fill>("_crrecord", "Records of a deduplicating content store. Import crrecord instead."));
}
