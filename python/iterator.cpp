// Iterators of Python over values that C++ makes.

#include "iterator.h"

#include "errors.h"

namespace crrecord::python {

namespace {

struct Iterator {
    PyObject_HEAD std::unique_ptr<ValueSource> source;
};

Iterator* IteratorIn(PyObject* self) noexcept {
    return reinterpret_cast<Iterator*>(self);
}

void Dealloc(PyObject* self) {
    PyTypeObject* const type = Py_TYPE(self);
    std::destroy_at(&IteratorIn(self)->source);
    type->tp_free(self);
    Py_DECREF(type);
}

PyObject* Next(PyObject* self) {
    try {
        return IteratorIn(self)->source->Next();
    } catch (...) {
        SetCurrentException();
        return nullptr;
    }
}

PyObject* LengthHint(PyObject* self, PyObject*) noexcept {
    return PyLong_FromSsize_t(IteratorIn(self)->source->Remaining());
}

PyTypeObject* MakeType() {
    static PyMethodDef methods[] = {{"__length_hint__", LengthHint, METH_NOARGS, nullptr},
                                    {nullptr, nullptr, 0, nullptr}};
    PyType_Slot slots[] = {{Py_tp_dealloc, reinterpret_cast<void*>(Dealloc)},
                           {Py_tp_iter, reinterpret_cast<void*>(PyObject_SelfIter)},
                           {Py_tp_iternext, reinterpret_cast<void*>(Next)},
                           {Py_tp_methods, methods},
                           {0, nullptr}};
    PyType_Spec spec{"crrecord._crrecord._Iterator", sizeof(Iterator), 0, Py_TPFLAGS_DEFAULT, slots};
    PyObject* const type = PyType_FromSpec(&spec);
    if (!type) {
        throw py::error_already_set();
    }
    reinterpret_cast<PyTypeObject*>(type)->tp_new = nullptr; // only C++ makes iterators
    return reinterpret_cast<PyTypeObject*>(type);
}

} // namespace

py::object IteratorOver(std::unique_ptr<ValueSource> source) {
    static PyTypeObject* const type = MakeType();
    PyObject* const self = type->tp_alloc(type, 0);
    if (!self) {
        throw py::error_already_set();
    }
    std::construct_at(&IteratorIn(self)->source, std::move(source));
    return py::reinterpret_steal<py::object>(self);
}

} // namespace crrecord::python
