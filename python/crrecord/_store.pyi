from os import PathLike
from typing import Any, Dict, List, Literal, Sequence, Union

from ._crrecord import Buffer, Source

class SegmentSet:
    """The distinct segments of DO records, in memory: container, fingerprint type and fingerprint.

    If records disagree about the size of a segment, the greatest counts.
    """

    def __init__(self) -> None: ...
    @staticmethod
    def from_file(
        path: Union[str, PathLike[str]], *, on_error: Literal["raise", "skip"] = "raise", sub_do: bool = False
    ) -> SegmentSet:
        """Return the segments of the DO records in a file."""
    def update(
        self, source: Source, *, on_error: Literal["raise", "skip"] = "raise", sub_do: bool = False
    ) -> None:
        """Add the segments of the DO records in a buffer, a file or several of them.

        on_error: 'raise' or 'skip' bad records. Records before a bad one are added.
        """
    def __ior__(self, other: SegmentSet) -> SegmentSet: ...
    def split(self, parts: int) -> List[SegmentSet]:
        """Return a list of disjoint sets.

        The part of a segment depends on the segment and the number of parts only, in every process.
        """
    def bytes_by_container(self) -> Dict[int, int]:
        """Return a dictionary of the bytes in each container, in ascending order of the containers."""
    def __len__(self) -> int: ...
    @property
    def bytes(self) -> int:
        """The sum of the sizes."""
    @property
    def conflicts(self) -> int:
        """Number of segments that records give several sizes."""
    @property
    def skipped(self) -> int:
        """Number of bad records that were skipped, also for the sets merged into this one.

        Of the parts of a set the first has its number.
        """
    def __sizeof__(self) -> int: ...
    def __reduce_ex__(self, protocol: Any, /) -> Any: ...

def _restored(state: Buffer, skipped: int) -> SegmentSet: ...

# For crrecord.cluster. A part is (name, path, offset, number, end, size, modified), a work file (folder, name).
_Part = tuple[bytes, bytes, int, int, int, int, int]
_File = tuple[bytes, str]
_MOST_CLAIMED: int

def _index(name: bytes, path: bytes, step: int) -> list[tuple[int, int]]: ...
def _scan_store(
    parts: Sequence[_Part],
    scan: bool,
    claimed: int,
    output: _File,
    *,
    held: bool,
    stored: bool,
    dropped: Sequence[tuple[int, int]],
    own: bool,
    cache: int,
    partitions: int,
    key: int,
) -> tuple[int, bool]: ...
def _scan_lost(
    parts: Sequence[_Part], scan: bool, claimed: int, output: _File, *, containers: Sequence[int]
) -> tuple[int, bool]: ...
def _validate(
    parts: Sequence[_Part], scan: bool, claimed: int, output: _File, *, first: bool, bad_only: bool
) -> tuple[int, bool]: ...
def _printable(text: bytes) -> bytes: ...
def _outcome(piece: _File) -> tuple[int, bool]: ...
def _check(name: _File) -> None: ...
def _total(
    folder: bytes,
    pieces: Sequence[str],
    partition: int,
    by_first_use: bool,
    memory: int,
    temporary: bytes,
    output: _File,
) -> None: ...
def _report_live(
    folder: bytes, pieces: Sequence[str], partitions: Sequence[str], out: int, error: int, sparse: int
) -> int: ...
def _report_freed(folder: bytes, pieces: Sequence[str], partitions: Sequence[str], out: int, error: int) -> int: ...
def _report_recall(
    folder: bytes, pieces: Sequence[str], partitions: Sequence[str], out: int, error: int, cache: int
) -> int: ...
def _report_lost(folder: bytes, pieces: Sequence[str], partitions: Sequence[str], out: int, error: int) -> int: ...
def _report_validate(
    folder: bytes, pieces: Sequence[str], partitions: Sequence[str], out: int, error: int, files: int
) -> int: ...
