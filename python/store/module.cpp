// The extension module crrecord._store.

#include "errors.h"
#include "functions.h"
#include "module_entry.h"

#include "io/failure.h"

namespace crrecord::python {

namespace {

// A failure of the command's code that has no status: the operating system refused something, or sums are too large.
void RaiseFailure(std::exception_ptr failure) {
    try {
        std::rethrow_exception(failure);
    } catch (tool::Failure const& error) {
        Raise(CR_STATUS_INVALID, error.what());
    }
}

void Fill(py::module_ module) {
    UseErrors();
    py::register_local_exception_translator([](std::exception_ptr failure) {
        try {
            RaiseFailure(failure);
        } catch (py::error_already_set& error) {
            error.restore();
        }
    });
    BindSegmentSet(module);
    BindCluster(module);
    FinishFunctions(module);
}

} // namespace

} // namespace crrecord::python

extern "C" PYBIND11_EXPORT PyObject* PyInit__store() {
    using namespace crrecord::python;
    return PyModuleDef_Init(
        DefinitionOf<Fill>("_store", "Whole stores of a deduplicating content store. Import crrecord instead."));
}
