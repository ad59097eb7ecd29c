"""A run: from files to pieces, partitions and a report."""

from __future__ import annotations

import glob
import importlib
import os
import pathlib
import secrets
from typing import TYPE_CHECKING, Any, Callable, Dict, Iterable, List, Mapping, NamedTuple, Sequence, Tuple, Union

from .. import _store
from .._crrecord import __version__
from . import _tasks
from ._tasks import Input, Part, Piece, Scan, name_of

if TYPE_CHECKING:
    from distributed import Client

    File = Union[str, bytes, os.PathLike[str], os.PathLike[bytes]]

MARK = 64 << 20  # the distance of index entries, in bytes
LEAST_PIECE, MOST_PIECE = 128 << 20, 1 << 30
PIECES = 2048  # pieces are larger if there would be more of them
MOST_PARTS = 1000  # of a piece, so that its task is small for the scheduler
MOST_PARTITIONS = 8192
LEAST_MEMORY = 64 << 20  # bytes for the segments of a partition
NO_END = (1 << 64) - 1
RETRIES = 2


class Question(NamedTuple):
    """A verb with its options."""

    scan: Scan
    report: Callable[..., int]  # (folder, pieces, partitions, out, error, *arguments) -> status
    arguments: Sequence[int] = ()
    has_partitions: bool = True
    by_first_use: bool = False  # the order of the containers
    counts_files: bool = False  # the report takes their number


def distributed() -> Any:
    """Import Dask distributed, whose functions have no types. Only a run needs it."""
    return importlib.import_module("distributed")


def _list(files: Iterable[File]) -> List[Input]:
    inputs = []
    for file in files:
        name = os.fsencode(file)
        names = [name] if os.path.lexists(name) else sorted(glob.glob(name, recursive=True))
        if not names:
            raise FileNotFoundError(f"{os.fsdecode(name)}: no such file, and no file matches")
        for found in names:
            facts = os.stat(found)
            inputs.append(Input(found, os.path.abspath(found), facts.st_size, facts.st_mtime_ns))
    return inputs


def _parts(input: Input, marks: Sequence[Tuple[int, int]], size: int) -> List[Part]:
    """Divide a file into parts of at least `size` bytes, at marks."""
    starts = [marks[0]]
    for mark in marks[1:]:
        if mark[0] - starts[-1][0] >= size:
            starts.append(mark)
    ends = [offset for offset, _ in starts[1:]] + [NO_END]
    return [
        Part(input.name, input.path, offset, number, end, input.size, input.modified)
        for (offset, number), end in zip(starts, ends)
    ]


def _pieces(parts: Iterable[Part], size: int) -> List[Piece]:
    """Group parts, in their order, into pieces of about `size` bytes."""
    groups: List[List[Part]] = []
    left = 0
    for part in parts:
        length = min(part.end, part.size) - part.offset
        if not groups or left < length or len(groups[-1]) == MOST_PARTS:
            groups.append([])
            left = size
        groups[-1].append(part)
        left -= length
    return [Piece(tuple(group), 0) for group in groups]


class Run:
    """A run in a folder for work files. Tasks whose files exist are not repeated."""

    def __init__(
        self, client: Client, question: Question, files: Iterable[File], work: File, piece: int | None
    ) -> None:
        self.client: Any = client
        self.question = question
        self.run = secrets.token_hex(8)  # other runs on the scheduler have other folders, or old errors
        self.work = os.path.abspath(os.fsdecode(work))
        os.makedirs(self.work, exist_ok=True)
        self.inputs = _list(files)
        total = sum(input.size for input in self.inputs)
        self.piece = piece or min(max(total // PIECES, LEAST_PIECE), MOST_PIECE)
        self.partitions = 0
        if question.has_partitions:
            # A power of two, so that more files seldom change it: then all pieces are scanned again.
            self.partitions = min(1 << max(-(-total // self.piece) - 1, 0).bit_length(), MOST_PARTITIONS)
            question.scan.options.update(partitions=self.partitions, key=self._key())

    def _key(self) -> int:
        """Return the random key of the folder's hash."""
        path = pathlib.Path(self.work, "key")
        while True:
            try:
                return int(path.read_text(), 16)
            except ValueError as error:
                raise OSError(f"{path}: is damaged: remove it and run again") from error
            except FileNotFoundError:
                temporary = pathlib.Path(self.work, "key." + secrets.token_hex(8))
                temporary.write_text(secrets.token_hex(8))
                try:
                    os.link(temporary, path)  # of several runs, the first one's key is used
                except FileExistsError:
                    pass
                temporary.unlink()

    def _name_of(self, piece: Piece) -> str:
        return name_of(__version__, sorted(self.question.scan.options.items()), self.question.scan[::2], piece)

    def _compute(self, function: Callable[..., Any], tasks: Mapping[str, Tuple[Any, ...]]) -> Dict[str, Any]:
        """Call function(work, *arguments) for each task and return the results by key."""
        options: Dict[str, Any] = {"retries": RETRIES, "pure": False}
        futures = [
            self.client.submit(function, self.work, *arguments, key=f"crrecord-{self.run}-{key}", **options)
            for key, arguments in tasks.items()
        ]
        keys = {future.key: key for future, key in zip(futures, tasks)}
        results = {}
        try:
            for future in distributed().as_completed(futures):
                results[keys[future.key]] = future.result()
        finally:
            self.client.cancel([future for future in futures if not future.done()])
        return results

    def _split(self) -> List[Piece]:
        step = min(MARK, self.piece)
        large = [input for input in self.inputs if input.size > self.piece and not self.question.scan.search]
        marks = self._compute(_tasks.index, {name_of("index", input, step): (input, step) for input in large})
        parts: List[Part] = []
        for input in self.inputs:
            parts += _parts(input, marks.get(name_of("index", input, step), [(0, 1)]), self.piece)
        return _pieces(parts, self.piece)

    def _scan(self, pieces: Sequence[Piece]) -> List[str]:
        """Scan pieces and return the names of their files."""
        names = [self._name_of(piece) for piece in pieces]
        question = self.question.scan
        tasks = {name: (question, piece, name) for piece, name in zip(pieces, names)}
        waiting = {name: task for name, task in tasks.items() if not _tasks.is_done(self.work, name)}
        outcomes = self._compute(_tasks.scan, waiting)
        # Records claim bytes, and one that exceeds the limit for their sum is bad: then what records before a piece
        # claim matters, and the piece is scanned again with that.
        before = 0
        for i, piece in enumerate(pieces):
            name = names[i]
            claimed, is_refused = outcomes.get(name) or _store._outcome((os.fsencode(self.work), name))
            if before and (is_refused or before + claimed > _store._MOST_CLAIMED):
                piece = piece._replace(claimed=before)
                names[i] = name = self._name_of(piece)
                claimed, _ = self._compute(_tasks.scan, {name: (question, piece, name)})[name]
            before += claimed
        return names

    def _total(self, pieces: Sequence[str]) -> List[str]:
        """Total the partitions of pieces and return the names of their files."""
        by_first_use = self.question.by_first_use
        listed = name_of("pieces", list(pieces))
        path = pathlib.Path(self.work, listed)
        if not path.exists():
            _tasks.write(path, "\n".join(pieces))
        names = [name_of("total", listed, i, by_first_use) for i in range(self.partitions)]
        tasks = {
            name: (listed, i, by_first_use, max(2 * self.piece, LEAST_MEMORY), name)
            for i, name in enumerate(names)
            if not _tasks.is_done(self.work, name)
        }
        self._compute(_tasks.total, tasks)
        return names

    def answer(self, out: int, error: int) -> int:
        """Print the lines and messages to these descriptors and return the status."""
        pieces = self._scan(self._split())
        partitions = self._total(pieces) if self.question.has_partitions else []
        arguments = (len(self.inputs),) if self.question.counts_files else self.question.arguments
        return self.question.report(os.fsencode(self.work), pieces, partitions, out, error, *arguments)
