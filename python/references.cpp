// Typed references: conversion between values of the library and crrecord.Reference.

#include "references.h"

#include "buffer.h"
#include "enums.h"
#include "errors.h"

#include <crrecord/references.h>

#include <limits>
#include <set>
#include <utility>
#include <vector>

namespace crrecord::python {

namespace {

[[noreturn]] void RaiseNoReference(py::handle object) {
    throw py::value_error("not a reference: " + ShortRepr(object));
}

std::string TextOf(_cr_tref_t const* reference) {
    char text[CR_TREF_TEXT_SIZE];
    return CRTRefToString(text, sizeof text, reference);
}

DORecord::tref_ptr_t HandleOf(py::object const& reference) {
    return DORecord::tref_ptr_t(Cr_TRef::Factory(ParseReference(reference).get()));
}

// Throws: CR_STATUS_INVALID for a section of 4 GiB or more, which exceeds the size of a record.
unsigned int Narrowed(unsigned long size) {
    if (size > std::numeric_limits<unsigned int>::max()) {
        throw Cr_ErrnoException(CR_STATUS_INVALID, "invalid record size for DO", nullptr);
    }
    return static_cast<unsigned int>(size);
}

bool AddReference(DORecord& record, py::object const& reference) {
    int const status = record.OwnTRef(HandleOf(reference));
    if (status > 1) {
        Raise(static_cast<cr_status_t>(status));
    }
    return status == 0;
}

// Copies the references first: creating a Python object may run other code, which may change the record.
py::list References(DORecord const& record) {
    std::vector<std::pair<int, unsigned long>> copies;
    for (auto i = record.GetTRefBegin(); i != record.GetTRefEnd(); ++i) {
        copies.emplace_back(CRTRefGetType((*i)->Get()), CRTRefGetID((*i)->Get()));
    }
    py::list references;
    for (auto const& [kind, id] : copies) {
        references.append(ReferenceOf(kind, id));
        CheckSignals(py::len(references));
    }
    return references;
}

// Calls isActive for all tasks before it removes any, since isActive may change the record.
unsigned long RemoveInactiveTasks(DORecord& record, py::function const& isActive) {
    std::vector<unsigned long> tasks;
    for (auto i = record.GetTRefTypeBegin(CR_REFTYPE_TASKID); i != record.GetTRefTypeEnd(CR_REFTYPE_TASKID); ++i) {
        tasks.push_back(CRTRefGetTaskID((*i)->Get()));
    }
    std::set<unsigned long> inactive;
    for (unsigned long const task : tasks) {
        if (!py::cast<bool>(py::bool_(isActive(task)))) {
            inactive.insert(task);
        }
    }
    auto const answer = [](unsigned long task, void* context) -> int {
        return static_cast<std::set<unsigned long> const*>(context)->contains(task) ? 0 : 1;
    };
    return record.RemoveInactiveTaskIDs(answer, &inactive);
}

} // namespace

py::object ReferenceOf(int kind, unsigned long id) {
    static auto const* const type = new py::object(PythonType("Reference"));
    return MakeTuple(*type, ReferenceKindMember(kind), id);
}

ReferenceValue ParseReference(py::handle object) {
    ReferenceValue value;
    try {
        if (py::isinstance<py::str>(object)) {
            auto const text = py::cast<std::string>(object);
            unsigned long consumed = 0;
            value.reset(CRTRefNewDeserialize(text.data(), text.size(), CR_TREF_TEXT, &consumed));
            if (consumed != text.size()) {
                value.reset();
            }
        } else if (py::isinstance<py::tuple>(object) && py::len(object) == 2) {
            auto const [kind, id] = py::cast<std::pair<int, unsigned long>>(object);
            value.reset(CRTRefNew(static_cast<cr_reftype_t>(kind), id));
        }
    } catch (py::cast_error const&) { // numbers that do not fit, or a text with a surrogate
    }
    if (!value) {
        RaiseNoReference(object);
    }
    return value;
}

py::list DecodeReferences(unsigned char const* section, unsigned long size) {
    py::list references;
    for (unsigned long at = 0; at < size;) {
        DOReference reference{};
        unsigned long const consumed = DOReferenceDecode(section + at, size - at, reference);
        if (consumed == 0) {
            Raise(CR_STATUS_CORRUPT_RECORD, "the references were changed after validation and are invalid");
        }
        references.append(ReferenceOf(reference.kind, reference.id));
        CheckSignals(py::len(references));
        at += consumed;
    }
    return references;
}

void BindReferences(py::module_& module) {
    module.def(
        "_reference_text", [](py::object const& reference) { return TextOf(ParseReference(reference).get()); },
        py::arg("reference"));
    module.def(
        "_parse_reference",
        [](py::str const& text) {
            ReferenceValue const value = ParseReference(text);
            return ReferenceOf(CRTRefGetType(value.get()), CRTRefGetID(value.get()));
        },
        py::arg("text"));
}

void BindRecordReferences(py::class_<DORecord>& type) {
    type.def_property_readonly("references", References, "The typed references, by kind and id.")
        .def("add_reference", AddReference, py::arg("reference"),
             "Add a Reference, a (kind, id) or a text such as 'task:17'; kinds 2, 4, 6 and 9.\n\n"
             "Return False if the record already has it.")
        .def(
            "add_serialized_references",
            [](DORecord& record, py::object const& buffer) {
                Slice const bytes = PinWhole(buffer);
                record.AddSerializedTRefs(reinterpret_cast<char const*>(bytes.Data()), Narrowed(bytes.size));
            },
            py::arg("buffer"), "Add references of any kind from a buffer in the form of the section in a record.")
        .def(
            "remove_reference",
            [](DORecord& record, py::object const& reference) { return record.DelTRef(HandleOf(reference)) != 0; },
            py::arg("reference"), "Remove a reference; return False if the record does not have it.")
        .def(
            "clear_references",
            [](DORecord& record, int kind) { record.ClearTRefType(static_cast<cr_reftype_t>(kind)); }, py::arg("kind"),
            "Remove all references of a kind.")
        .def("remove_inactive_tasks", RemoveInactiveTasks, py::arg("is_active"),
             "Remove the task ids for which is_active(task) is false. Return their number.");
}

} // namespace crrecord::python
