from typing import Literal

from ._crrecord import Source

class SegmentSet:
    """The distinct segments of DO records, in memory."""

    def __init__(self) -> None: ...
    def __len__(self) -> int: ...
    def update(
        self, source: Source, *, on_error: Literal["raise", "skip"] = "raise", sub_do: bool = False
    ) -> None:
        """Add the segments of the DO records in a buffer, a file or several of them.

        on_error: 'raise' or 'skip' bad records.
        """
