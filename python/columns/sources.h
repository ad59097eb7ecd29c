// Sources of records as Python passes them, and the exceptions of reading them.

#pragma once

#include "columns/record_reader.h"

namespace crrecord::python::columns {

using Sources = std::shared_ptr<std::vector<Source> const>;

// Returns: true for a text, and for an object with __fspath__.
bool IsPath(py::handle object);

// Returns: the sources in a buffer, a path or an iterable of both. Any thread may release them.
Sources SourcesOf(py::object const& object);

// Returns: the options of on_error, which is "raise" or "skip", and sub_do. Raises ValueError.
RecordReader::Options ReaderOptions(std::string const& onError, bool subDO);

// Sets the Python exception of BadRecord or ReadError, which is being handled, and throws it. Throws others again.
[[noreturn]] void RethrowForPython();

} // namespace crrecord::python::columns
