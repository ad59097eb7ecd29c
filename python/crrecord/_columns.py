"""Columns as NumPy arrays."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any

import numpy

if TYPE_CHECKING:
    from ._crrecord import Batch, Table

_TYPES = {"C": "u1", "S": "u2", "I": "u4", "L": "u8"}


def _column(format: str, element: str, validity: Any, offsets: Any, values: Any, rows: int) -> Any:
    bytes_ = numpy.frombuffer(values if values is not None else b"", "u1")
    if format in _TYPES:
        column: Any = bytes_.view(_TYPES[format])
    elif format.startswith("w:"):
        column = bytes_.reshape(rows, int(format[2:]))
    else:
        ends = numpy.frombuffer(offsets, "i4")
        column = numpy.empty(rows, object)
        elements = bytes_.view(_TYPES[element]) if format == "+l" else None
        for row, (start, end) in enumerate(zip(ends, ends[1:])):
            column[row] = bytes(bytes_[start:end]).decode() if elements is None else elements[start:end]
    if validity is None:
        return column
    bits = numpy.unpackbits(numpy.frombuffer(validity, "u1"), count=rows, bitorder="little")
    mask = numpy.broadcast_to((bits == 0).reshape((rows,) + (1,) * (column.ndim - 1)), column.shape)
    return numpy.ma.MaskedArray(column, mask=mask)


def _of_batch(batch: Batch) -> dict[str, Any]:
    return {name: _column(*rest, len(batch)) for name, *rest in batch._buffers()}


def to_numpy(source: Table | Batch) -> dict[str, Any]:
    """Return a dictionary of arrays; a column with nulls is a masked array. One batch is not copied."""
    if hasattr(source, "_buffers"):
        return _of_batch(source)
    batches = [_of_batch(batch) for batch in source]
    if len(batches) == 1:
        return batches[0]
    if not batches:
        return {name: numpy.empty(0, object) for name in source.column_names}
    return {name: numpy.ma.concatenate([batch[name] for batch in batches])
            if any(numpy.ma.isMaskedArray(batch[name]) for batch in batches)
            else numpy.concatenate([batch[name] for batch in batches])
            for name in source.column_names}
