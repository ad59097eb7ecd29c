// The enumerations of the package.

#include "enums.h"

#include <crrecord/DORecordHeader.h>
#include <crrecord/fingerprint.h>
#include <crrecord/status.h>
#include <crrecord/tref.h>

#include <map>

namespace crrecord::python {

namespace {

using Members = std::map<std::string, int>;

// Returns: a dict of the members by number, which is never released: static destruction runs after the end of the
// interpreter.
py::dict const* MembersOf(py::handle type) {
    auto* const byNumber = new py::dict();
    for (py::handle const member : type) {
        (*byNumber)[member.attr("value")] = member;
    }
    return byNumber;
}

// Adds an IntEnum to the module. Returns: its members.
py::dict const* AddEnum(py::module_& module, char const* name, Members const& members) {
    py::list pairs;
    for (auto const& [member, number] : members) {
        pairs.append(py::make_tuple(member, number));
    }
    pairs.attr("sort")(py::arg("key") = py::module_::import("operator").attr("itemgetter")(1));
    py::object const type = py::module_::import("enum").attr("IntEnum")(name, pairs, py::arg("module") = "crrecord");
    module.attr(name) = type;
    return MembersOf(type);
}

py::dict const* statuses;
py::dict const* fpTypes;
py::dict const* doTypes;
py::dict const* kinds;

py::object MemberOf(py::dict const* members, long number) {
    py::int_ key(number);
    PyObject* const member = PyDict_GetItemWithError(members->ptr(), key.ptr());
    return member ? py::reinterpret_borrow<py::object>(member) : std::move(key);
}

// The names are those of the text form.
Members KindNames() {
    Members names{{"TASK", CR_REFTYPE_TASKID}, {"DSID", CR_REFTYPE_DSID}};
    for (int kind = 0; kind < CR_REFTYPE_END; ++kind) {
        if (kind != CR_REFTYPE_TASKID && kind != CR_REFTYPE_DSID) {
            names["REF" + std::to_string(kind)] = kind;
        }
    }
    return names;
}

} // namespace

py::object StatusMember(int status) {
    return MemberOf(statuses, status);
}

py::object FPTypeMember(unsigned int fptype) {
    return MemberOf(fpTypes, fptype);
}

py::object DOTypeMember(unsigned int dotype) {
    return MemberOf(doTypes, dotype);
}

py::object ReferenceKindMember(int kind) {
    return MemberOf(kinds, kind);
}

void UseStatuses(py::handle type) {
    statuses = MembersOf(type);
}

void BindEnums(py::module_& module) {
    statuses = AddEnum(module, "Status",
                       {{"OK", CR_STATUS_OK},
                        {"INVALID", CR_STATUS_INVALID},
                        {"NO_MEMORY", CR_STATUS_NO_MEMORY},
                        {"CORRUPT_RECORD", CR_STATUS_CORRUPT_RECORD},
                        {"NULL_ARGUMENT", CR_STATUS_NULL_ARGUMENT},
                        {"NOT_SUPPORTED", CR_STATUS_NOT_SUPPORTED},
                        {"NOT_FOUND", CR_STATUS_NOT_FOUND},
                        {"CORRUPT_DATA", CR_STATUS_CORRUPT_DATA},
                        {"INVALID_FP_TYPE", CR_STATUS_INVALID_FP_TYPE},
                        {"INVALID_DO_TYPE", CR_STATUS_INVALID_DO_TYPE}});
    fpTypes = AddEnum(module, "FPType",
                      {{"MD5", CR_FP_TYPE_MD5},
                       {"SHA1_128", CR_FP_TYPE_SHA1_128},
                       {"SHA256_128", CR_FP_TYPE_SHA256_128},
                       {"SHA256", CR_FP_TYPE_SHA256}});
    doTypes = AddEnum(module, "DOType",
                      {{"ORIGINAL", CR_DO_TYPE_ORIGINAL},
                       {"NO_SIZE", CR_DO_TYPE_NO_SIZE},
                       {"NO_OFFSET", CR_DO_TYPE_NO_OFFSET},
                       {"OFFSET_8_BYTE", CR_DO_TYPE_8_BYTE_OFFSET},
                       {"BLOOM_FILTER", CR_DO_TYPE_BLOOM_FILTER},
                       {"OFFSET_4_BYTE", CR_DO_TYPE_4_BYTE_OFFSET}});
    kinds = AddEnum(module, "ReferenceKind", KindNames());
}

} // namespace crrecord::python
