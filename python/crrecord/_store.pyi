from os import PathLike
from typing import Any, Dict, List, Literal, Union

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
