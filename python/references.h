// Typed references: between the library's values and crrecord.Reference.

#pragma once

#include "bindings.h"

#include <crrecord/DORecord.h>
#include <crrecord/tref.h>

#include <memory>

namespace crrecord::python {

struct DeleteReference {
    void operator()(_cr_tref_t* reference) const noexcept { CRTRefDelete(&reference); }
};
using ReferenceValue = std::unique_ptr<_cr_tref_t, DeleteReference>;

py::object ReferenceOf(_cr_tref_t const* reference);

// From (kind, id) or a text such as "task:17"; raises ValueError.
ReferenceValue ParseReference(py::handle object);

// Those that a section holds. Its bytes may have changed since they were validated, so they are decoded with care.
py::list DecodeReferences(unsigned char const* section, unsigned long size);

// What a record has to do with references.
void BindRecordReferences(py::class_<DORecord>& type);

} // namespace crrecord::python
