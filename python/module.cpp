// The extension module crrecord._crrecord.

#include "bindings.h"

#include <crrecord/DORecordHeader.h>
#include <crrecord/fingerprint.h>

namespace crrecord::python {

namespace {

void AddConstants(py::module_& module) {
    py::object const intEnum = py::module_::import("enum").attr("IntEnum");
    auto const add = [&](char const* name, py::dict const& values) {
        module.attr(name) = intEnum(name, values, py::arg("module") = "crrecord");
    };
    using namespace py::literals;
    add("FPType", py::dict("MD5"_a = CR_FP_TYPE_MD5, "SHA1_128"_a = CR_FP_TYPE_SHA1_128,
                           "SHA256_128"_a = CR_FP_TYPE_SHA256_128, "SHA256"_a = CR_FP_TYPE_SHA256));
    add("DOType", py::dict("ORIGINAL"_a = CR_DO_TYPE_ORIGINAL, "NO_SIZE"_a = CR_DO_TYPE_NO_SIZE,
                           "NO_OFFSET"_a = CR_DO_TYPE_NO_OFFSET, "OFFSET_8_BYTE"_a = CR_DO_TYPE_8_BYTE_OFFSET,
                           "BLOOM_FILTER"_a = CR_DO_TYPE_BLOOM_FILTER, "OFFSET_4_BYTE"_a = CR_DO_TYPE_4_BYTE_OFFSET));
}

} // namespace

} // namespace crrecord::python

PYBIND11_MODULE(_crrecord, module) {
    using namespace crrecord::python;
    py::options options;
    options.disable_function_signatures(); // _crrecord.pyi has them
    module.doc() = "Records of a deduplicating content store. Import crrecord instead.";
    module.attr("__version__") = CRRECORD_VERSION;
    BindErrors(module);
    AddConstants(module);
    BindArray(module);
    BindDiagnosis(module);
    BindView(module);
    BindSegmentView(module);
    BindStream(module);
    BindReferences(module);
    BindDORecord(module);
    BindSORecord(module);
}
