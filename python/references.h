// Typed references: conversion between values of the library and crrecord.Reference.

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

py::object ReferenceOf(int kind, unsigned long id);

// From (kind, id) or a text such as "task:17"; raises ValueError.
ReferenceValue ParseReference(py::handle object);

// Returns: the references in a section. Raises crrecord.Error if the bytes were changed since validation and are
// invalid.
py::list DecodeReferences(unsigned char const* section, unsigned long size);

// Adds the methods for references to the class.
void BindRecordReferences(py::class_<DORecord>& type);

} // namespace crrecord::python
