"""Columns as NumPy arrays."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any, Tuple

import numpy

if TYPE_CHECKING:
    from ._crrecord import Batch, Table

_TYPES = {"C": "u1", "S": "u2", "I": "u4", "L": "u8"}


def _array(description: Tuple[str, str, str, bool], validity: Any, offsets: Any, values: Any, rows: int) -> Any:
    _, format, element, is_nullable = description
    data = numpy.frombuffer(values if values is not None else b"", "u1")
    if format in _TYPES:
        column: Any = data.view(_TYPES[format])
    elif format.startswith("w:"):
        column = data.reshape(rows, int(format[2:]))
    else:
        ends = numpy.frombuffer(offsets, "i4") if rows else []
        column = numpy.empty(rows, object)
        elements = data.view(_TYPES[element]) if format == "+l" else None
        for row, (start, end) in enumerate(zip(ends, ends[1:])):
            column[row] = bytes(data[start:end]).decode() if elements is None else elements[start:end]
    if not is_nullable:
        return column
    is_null = numpy.zeros(rows, bool)
    if validity is not None:
        is_null = numpy.unpackbits(numpy.frombuffer(validity, "u1"), count=rows, bitorder="little") == 0
    mask = numpy.broadcast_to(is_null.reshape((rows,) + (1,) * (column.ndim - 1)), column.shape)
    return numpy.ma.MaskedArray(column, mask=mask)


def _of_batch(batch: Batch) -> dict[str, Any]:
    return {description[0]: _array(description, *buffers, len(batch)) for description, *buffers in batch._buffers()}


def to_numpy(source: Table | Batch) -> dict[str, Any]:
    """Return a dictionary of arrays; a column whose values can be null is a masked array. One batch is not copied."""
    if hasattr(source, "_buffers"):
        return _of_batch(source)
    batches = [_of_batch(batch) for batch in source]
    if len(batches) == 1:
        return batches[0]
    arrays = {}
    for description in source._columns():
        name, is_nullable = description[0], description[3]
        parts = [batch[name] for batch in batches] or [_array(description, None, None, None, 0)]
        arrays[name] = (numpy.ma.concatenate if is_nullable else numpy.concatenate)(parts)
    return arrays
