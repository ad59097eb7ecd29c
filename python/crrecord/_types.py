"""The types of crrecord that are written in Python: the exception, and what is given as a named tuple."""

from __future__ import annotations

from typing import NamedTuple, Optional, Sequence


class Finding(NamedTuple):
    """What a diagnosis says of one place in a buffer."""

    code: int  # a number that never changes
    name: str  # its short name, such as "do-recsize"
    severity: str  # "error" or "note"
    offset: int  # of the first byte in question
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
        self.findings = list(findings)  # of a bad record: what is wrong with it; otherwise empty

    def __str__(self) -> str:
        return f"{self.text} (status {self.status})"


class Segment(NamedTuple):
    """What a record says of one segment."""

    fingerprint: bytes
    size: int
    offset: Optional[int]  # None where the DO type has none
    dcid: int  # the container that holds it


class Reference(NamedTuple):
    """A typed reference, which keeps an object alive. Its str() is its text, such as "task:17"."""

    kind: int
    id: int

    def __str__(self) -> str:
        from . import _crrecord

        return _crrecord._reference_text(self)

    @classmethod
    def parse(cls, text: str) -> "Reference":
        """From a text; ValueError for anything else."""
        from . import _crrecord

        return _crrecord._parse_reference(text)


class Digest(NamedTuple):
    """One fingerprint for a whole object."""

    bytes: bytes
    fptype: Optional[int]  # None for a digest of no type
    dcid: int  # the object's container


class Probe(NamedTuple):
    """What the record at the start of a buffer says of itself."""

    kind: str  # "do" or "segment"
    order: str  # "host" or "network"
    head_size: int  # bytes from which such a record can tell its size
    recorded_size: int  # by its record size; 0 below head_size bytes
    counted_size: int  # by its counts; 0 below head_size bytes
