"""Questions about whole stores on many machines, with Dask distributed.

Each function answers as the verb of the command with --json does: the same lines in the same order, as dictionaries.

    from distributed import Client
    import crrecord.cluster

    answer = crrecord.cluster.live(Client("scheduler:8786"), ["/store/*.do"], work="/store/work")
    missing = answer.lines[-1]["total"]["missing_segments"]
"""

from __future__ import annotations

import json
import tempfile
from typing import TYPE_CHECKING, Any, Dict, Iterable, List, NamedTuple, Union

from .. import _store
from .._types import Reference
from ._run import Question, Run
from ._tasks import Scan

if TYPE_CHECKING:
    from distributed import Client

    from ._run import File

__all__ = ["Answer", "freed", "live", "lost", "recall", "validate"]


class Answer(NamedTuple):
    """What a verb prints, and its exit status."""

    lines: List[Dict[str, Any]]
    messages: List[str]  # about bad records and skipped bytes
    status: int  # 0, or 1 for bad records, conflicts and missing segments


def _store_scan(search: bool, **options: Any) -> Scan:
    defaults = dict(held=False, stored=False, dropped=[], own=True, cache=0)
    return Scan("store", {**defaults, **options}, search)


def _live(held: bool, sparse: int, scan: bool) -> Question:
    return Question(_store_scan(scan, held=held, stored=True), _store._report_live, (sparse,))


def _freed(references: Iterable[Union[Reference, str]], scan: bool) -> Question:
    parsed = [Reference.parse(reference) if isinstance(reference, str) else reference for reference in references]
    dropped = [(int(kind), int(id)) for kind, id in parsed]
    return Question(_store_scan(scan, held=True, dropped=dropped), _store._report_freed)


def _recall(cache: int, scan: bool) -> Question:
    return Question(_store_scan(scan, own=False, cache=cache), _store._report_recall, (cache,), by_first_use=True)


def _lost(containers: Iterable[int], scan: bool) -> Question:
    lost = list(containers)
    if not lost:
        raise ValueError("found no containers, expected at least one")
    return Question(Scan("lost", {"containers": lost}, scan), _store._report_lost, has_partitions=False)


def _validate(first: bool, bad_only: bool, scan: bool) -> Question:
    question = Scan("validate", {"first": first, "bad_only": bad_only}, scan)
    return Question(question, _store._report_validate, has_partitions=False, counts_files=True)


def _answer(client: Client, question: Question, files: Iterable[File], work: File, piece: int | None) -> Answer:
    with tempfile.TemporaryFile() as lines, tempfile.TemporaryFile() as messages:
        status = Run(client, question, files, work, piece).answer(lines.fileno(), messages.fileno())
        lines.seek(0)
        messages.seek(0)
        texts = [line.decode().rstrip("\n").partition(": ")[2] for line in messages]
        return Answer([json.loads(line) for line in lines], texts, status)


def live(
    client: Client,
    files: Iterable[File],
    *,
    work: File,
    held: bool = False,
    sparse: int = 50,
    scan: bool = False,
    piece: int | None = None,
) -> Answer:
    """Report what records need of each container.

    work: a folder that this process and all workers see. held: count only records that have a reference. sparse: a
    container with fewer percent of needed bytes is sparse. scan: search for records after bytes that are none; then one
    task reads a whole file. piece: the bytes of records for a task, by default 128 MiB to 1 GiB.
    """
    return _answer(client, _live(held, sparse, scan), files, work, piece)


def freed(
    client: Client,
    files: Iterable[File],
    *,
    references: Iterable[Union[Reference, str]],
    work: File,
    scan: bool = False,
    piece: int | None = None,
) -> Answer:
    """Report what would not be needed without some references. See live for the other arguments."""
    return _answer(client, _freed(references, scan), files, work, piece)


def lost(
    client: Client,
    files: Iterable[File],
    *,
    containers: Iterable[int],
    work: File,
    scan: bool = False,
    piece: int | None = None,
) -> Answer:
    """List the records that are damaged if some containers are lost. See live for the other arguments."""
    return _answer(client, _lost(containers, scan), files, work, piece)


def recall(
    client: Client, files: Iterable[File], *, work: File, cache: int = 0, scan: bool = False, piece: int | None = None
) -> Answer:
    """List the containers that records need, in the order of a restore.

    cache: also count the fetches of a restore that keeps this number of containers. See live for the other arguments.
    """
    return _answer(client, _recall(cache, scan), files, work, piece)


def validate(
    client: Client,
    files: Iterable[File],
    *,
    work: File,
    first: bool = False,
    bad_only: bool = False,
    scan: bool = False,
    piece: int | None = None,
) -> Answer:
    """Report the errors and notes of each record.

    first: only the first error of each record, and no notes. bad_only: only bad records. See live for the others.
    """
    return _answer(client, _validate(first, bad_only, scan), files, work, piece)
