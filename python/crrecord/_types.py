"""The types of crrecord that are written in Python: the exception and the named tuples."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any, Literal, NamedTuple, Optional, Sequence, Tuple

if TYPE_CHECKING:
    from ._crrecord import Buffer, FPType, ReferenceKind
    from ._store import SegmentSet


class Finding(NamedTuple):
    """A fault, or a note, at one offset in a buffer."""

    code: int  # a number that never changes
    name: str  # its short name, such as "do-recsize"
    severity: Literal["error", "note"]
    offset: int  # of the first byte concerned
    found: int
    expected: int
    field: str  # such as "segments[17].offset"
    message: str


class Error(Exception):
    """A failure of the library."""

    def __init__(
        self, status: int, text: str, findings: Sequence[Finding] = (), position: Optional[int] = None
    ) -> None:
        super().__init__(status, text, findings)
        self.status = status  # a Status, or a number that is none
        self.text = text
        self.findings = list(findings)  # of a bad record, with offsets in the record; otherwise empty
        self.position = position  # offset of the bad record in the buffer of records(); otherwise None

    def __str__(self) -> str:
        where = "" if self.position is None else f"record at byte {self.position}: "
        return f"{where}{self.text} (status {int(self.status)})"

    def __reduce__(self) -> Tuple[Any, ...]:
        return type(self), (self.status, self.text, self.findings, self.position)


class Segment(NamedTuple):
    """One segment of a DO record."""

    fingerprint: bytes
    size: int
    offset: Optional[int]  # None if the DO type has none
    dcid: int  # the container of the segment


class Reference(NamedTuple):
    """A typed reference, which keeps an object alive. Its str() is its text, such as "task:17"."""

    kind: ReferenceKind
    id: int

    def __str__(self) -> str:
        from . import _crrecord

        return _crrecord._reference_text(self)

    @classmethod
    def parse(cls, text: str) -> "Reference":
        """Parse a text such as "task:17"; raise ValueError for any other."""
        from . import _crrecord

        return _crrecord._parse_reference(text)


class Digest(NamedTuple):
    """One fingerprint for an object."""

    bytes: bytes
    fptype: Optional[FPType]  # None for a digest without a type
    dcid: int  # the container of the object


class Probe(NamedTuple):
    """Kind, byte order and sizes stored in the record at the start of a buffer."""

    kind: Literal["do", "segment"]
    order: Literal["host", "network"]
    head_size: int  # bytes needed to determine the size
    recorded_size: int  # the stored record size; 0 below head_size bytes
    counted_size: int  # computed from the counts; 0 below head_size bytes


def restore(function: str, *arguments: Any) -> Any:
    """Call a function of the extension module. Pickles name this function, since pickle cannot name the other one."""
    from . import _crrecord

    return getattr(_crrecord, function)(*arguments)


def restore_segment_set(state: Buffer, skipped: int) -> SegmentSet:
    """Return the set that was pickled."""
    from . import _store

    return _store._restored(state, skipped)
