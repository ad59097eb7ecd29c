"""The tasks of a run, as the workers call them. Arguments and results are small: data moves through files."""

from __future__ import annotations

import hashlib
import json
import os
import pathlib
import tempfile
from typing import Any, Callable, Dict, List, NamedTuple, Tuple

from .. import _store
from .._types import Error


class Input(NamedTuple):
    """A file of records when it was listed."""

    name: bytes  # as the caller named it
    path: bytes  # absolute
    size: int
    modified: int  # in nanoseconds


class Part(NamedTuple):
    """Consecutive records of a file."""

    name: bytes
    path: bytes
    offset: int
    number: int
    end: int  # no record starts here or later
    size: int
    modified: int


class Scan(NamedTuple):
    """What a question scans records for."""

    kernel: str
    options: Dict[str, Any]
    search: bool  # for records after bytes that are none


class Piece(NamedTuple):
    """Records for one task."""

    parts: Tuple[Part, ...]
    claimed: int  # bytes that the records before claim, if that matters


_KERNELS: Dict[str, Callable[..., Tuple[int, bool]]] = {
    "store": _store._scan_store,
    "lost": _store._scan_lost,
    "validate": _store._validate,
}


def name_of(*content: Any) -> str:
    """Return the name of a work file: a digest of everything that its content depends on."""
    return hashlib.sha256(repr(content).encode()).hexdigest()


def write(path: pathlib.Path, text: str) -> None:
    """Write a small file beside its name and rename it."""
    with tempfile.NamedTemporaryFile("w", dir=path.parent, prefix=path.name, delete=False) as file:
        file.write(text)
    os.replace(file.name, path)


def is_done(work: str, name: str) -> bool:
    """Whether the work file of this name is complete."""
    try:
        _store._check((os.fsencode(work), name))
    except Error:
        return False
    return True


def index(work: str, input: Input, step: int) -> List[Tuple[int, int]]:
    """Return offset and number of about one record in each `step` bytes of a file."""
    path = pathlib.Path(work, name_of("index", input.path, input.size, input.modified, step))
    try:
        digest, text = path.read_text().split("\n", 1)
        if digest == name_of(path.name, text):
            return [(offset, number) for offset, number in json.loads(text)]
    except (OSError, ValueError):
        pass  # it does not exist, or is damaged
    marks = _store._index(input.name, input.path, step)
    facts = os.stat(input.path)
    if (facts.st_size, facts.st_mtime_ns) != (input.size, input.modified):
        raise OSError(f"{os.fsdecode(input.name)}: file changed since it was listed")
    text = json.dumps(marks)
    write(path, name_of(path.name, text) + "\n" + text)
    return marks


def scan(work: str, question: Scan, piece: Piece, name: str) -> Tuple[int, bool]:
    """Scan a piece, unless its file is complete. Return the bytes that it claims, and whether a record is refused."""
    output = (os.fsencode(work), name)
    if is_done(work, name):
        return _store._outcome(output)
    return _KERNELS[question.kernel](list(piece.parts), question.search, piece.claimed, output, **question.options)


def total(work: str, pieces: str, partition: int, by_first_use: bool, memory: int, name: str) -> None:
    """Total a partition of the pieces whose names are in the file `pieces`."""
    if not is_done(work, name):
        names = pathlib.Path(work, pieces).read_text().split()
        if name_of("pieces", names) != pieces:
            raise OSError(f"{pathlib.Path(work, pieces)}: is damaged: remove it and run again")
        temporary = os.fsencode(tempfile.gettempdir())
        _store._total(os.fsencode(work), names, partition, by_first_use, memory, temporary, (os.fsencode(work), name))
