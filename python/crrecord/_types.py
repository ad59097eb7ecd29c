"""The types of crrecord that are written in Python: the exception and the named tuples."""

from __future__ import annotations

from typing import NamedTuple, Optional, Sequence


class Finding(NamedTuple):
    """A fault, or a note, at one offset in a buffer."""

    code: int  # a number that never changes
    name: str  # its short name, such as "do-recsize"
    severity: str  # "error" or "note"
    offset: int  # of the first byte concerned
    found: int
    expected: int
    field: str  # such as "segments[17].offset"
    message: str


class Error(Exception):
    """A failure of the library."""

    def __init__(self, status: int, text: str, findings: Sequence[Finding] = ()) -> None:
        super().__init__(status, text, findings)
        self.status = status  # one of Status, or another number
        self.text = text
        self.findings = list(findings)  # of a bad record; otherwise empty

    def __str__(self) -> str:
        return f"{self.text} (status {self.status})"


class Segment(NamedTuple):
    """One segment of a DO record."""

    fingerprint: bytes
    size: int
    offset: Optional[int]  # None if the DO type has none
    dcid: int  # the container of the segment


class Reference(NamedTuple):
    """A typed reference, which keeps an object alive. Its str() is its text, such as "task:17"."""

    kind: int
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
    fptype: Optional[int]  # None for a digest without a type
    dcid: int  # the container of the object


class Probe(NamedTuple):
    """Kind, byte order and sizes stored in the record at the start of a buffer."""

    kind: str  # "do" or "segment"
    order: str  # "host" or "network"
    head_size: int  # bytes needed to determine the size
    recorded_size: int  # the stored record size; 0 below head_size bytes
    counted_size: int  # computed from the counts; 0 below head_size bytes
