// Typed references: between the library's values and crrecord.Reference.

#include "references.h"

#include "errors.h"

namespace crrecord::python {

namespace {

[[noreturn]] void RaiseNoReference(py::handle object) {
    throw py::value_error("no reference: " + py::cast<std::string>(py::repr(object)));
}

std::string TextOf(_cr_tref_t const* reference) {
    char text[CR_TREF_TEXT_SIZE];
    return CRTRefToString(text, sizeof text, reference);
}

} // namespace

py::object ReferenceOf(_cr_tref_t const* reference) {
    return MakeTuple("Reference", static_cast<int>(CRTRefGetType(reference)), CRTRefGetID(reference));
}

ReferenceValue ParseReference(py::handle object) {
    ReferenceValue value;
    if (py::isinstance<py::str>(object)) {
        auto const text = py::cast<std::string>(object);
        unsigned long consumed = 0;
        value.reset(CRTRefNewDeserialize(text.data(), text.size(), CR_TREF_TEXT, &consumed));
        if (consumed != text.size()) {
            value.reset();
        }
    } else if (py::isinstance<py::tuple>(object) && py::len(object) == 2) {
        try {
            auto const [kind, id] = py::cast<std::pair<int, unsigned long>>(object);
            value.reset(CRTRefNew(static_cast<cr_reftype_t>(kind), id));
        } catch (py::cast_error const&) {
            RaiseNoReference(object);
        }
    }
    if (!value) {
        RaiseNoReference(object);
    }
    return value;
}

py::list DecodeReferences(unsigned char const* section, unsigned long size) {
    py::list references;
    for (unsigned long at = 0; at < size;) {
        unsigned long consumed = 0;
        ReferenceValue const value(CRTRefNewDeserialize(section + at, size - at, CR_TREF_SERIALIZED, &consumed));
        if (!value) {
            Raise(*__cr_errno_location(), "the references changed after validation, and are none any more");
        }
        references.append(ReferenceOf(value.get()));
        at += consumed;
    }
    return references;
}

void BindReferences(py::module_& module) {
    module.def(
        "_reference_text", [](py::object const& reference) { return TextOf(ParseReference(reference).get()); },
        py::arg("reference"));
    module.def(
        "_parse_reference", [](py::str const& text) { return ReferenceOf(ParseReference(text).get()); },
        py::arg("text"));
}

} // namespace crrecord::python
