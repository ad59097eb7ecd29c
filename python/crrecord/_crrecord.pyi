import sys
from _typeshed import ReadableBuffer
from enum import IntEnum
from os import PathLike
from typing import Any, Callable, Iterable, Iterator, Literal, Optional, Protocol, Sequence, Tuple, TypeVar, Union, overload

from ._types import Digest, Error, Finding, Probe, Reference, Segment

class _SupportsBuffer(Protocol):
    def __buffer__(self, flags: int, /) -> memoryview: ...

class _SupportsArrayInterface(Protocol):
    @property
    def __array_interface__(self) -> Any: ...

# Any object with the buffer protocol: bytes, bytearray, memoryview, mmap.mmap, array.array, Array, a NumPy array.
Buffer = Union[ReadableBuffer, _SupportsBuffer, _SupportsArrayInterface]
# What tables are read from: a buffer, the path of a file, or several of them.
Source = Union[Buffer, str, PathLike[str], Iterable[Union[Buffer, str, PathLike[str]]]]
Order = Literal["host", "network"]
OnError = Union[Literal["raise", "skip"], Callable[[Error], object]]
T = TypeVar("T")
T_co = TypeVar("T_co", covariant=True)

__version__: str

class Status(IntEnum):
    OK: int
    INVALID: int
    NO_MEMORY: int
    CORRUPT_RECORD: int
    NULL_ARGUMENT: int
    NOT_SUPPORTED: int
    NOT_FOUND: int
    CORRUPT_DATA: int
    INVALID_FP_TYPE: int
    INVALID_DO_TYPE: int

class FPType(IntEnum):
    MD5: int
    SHA1_128: int
    SHA256_128: int
    SHA256: int

class DOType(IntEnum):
    ORIGINAL: int
    NO_SIZE: int
    NO_OFFSET: int
    OFFSET_8_BYTE: int
    BLOOM_FILTER: int
    OFFSET_4_BYTE: int

class ReferenceKind(IntEnum):
    REF0: int
    REF1: int
    TASK: int
    REF3: int
    DSID: int
    REF5: int
    REF6: int
    REF7: int
    REF8: int
    REF9: int
    REF10: int

class Array(Sequence[T_co]):
    """A sequence of numbers or fingerprints over the bytes of a record.

    It exports the buffer protocol, so numpy.asarray(array) copies nothing.
    """
    @property
    def format(self) -> str: """The format of an element, as in PEP 3118."""
    @property
    def dtype(self) -> Any: """The NumPy dtype of an element."""
    def __len__(self) -> int: ...
    def __iter__(self) -> Iterator[T_co]: ...
    @overload
    def __getitem__(self, index: int) -> T_co: ...
    @overload
    def __getitem__(self, index: slice) -> Array[T_co]: ...
    def index(self, value: object, start: int = 0, stop: int = sys.maxsize) -> int:
        """Return the first index of a value; raise ValueError if it is not in the sequence."""
    def count(self, value: object) -> int: """Return the number of elements that equal a value."""
    def __buffer__(self, flags: int, /) -> memoryview: ...
    def tolist(self) -> list[T_co]: """Return all elements as a list."""
    def to_numpy(self) -> Any:
        """Return a read-only NumPy array over the same bytes, as numpy.asarray, but faster for structures."""

class Segments(Sequence[Segment]):
    """The segments of a View, each created on access."""
    def __len__(self) -> int: ...
    def __iter__(self) -> Iterator[Segment]: ...
    @overload
    def __getitem__(self, index: int) -> Segment: ...
    @overload
    def __getitem__(self, index: slice) -> Segments: ...
    def index(self, value: object, start: int = 0, stop: int = sys.maxsize) -> int:
        """Return the first index of a value; raise ValueError if it is not in the sequence."""
    def count(self, value: object) -> int: """Return the number of elements that equal a value."""

class Records(Iterator[Union[View, SegmentView]]):
    """An iterator over consecutive records in a buffer."""
    @property
    def position(self) -> int: """Offset of the next record; after the end, of the first byte that is in no record."""
    @property
    def skipped(self) -> int: """Number of bad records that were skipped."""
    def __iter__(self) -> Records: ...
    def __next__(self) -> Union[View, SegmentView]: ...

class View:
    """A valid DO record in a buffer, in either byte order, read in place."""
    def __init__(self, buffer: Buffer, *, sub_do: bool = False) -> None: ...
    @property
    def kind(self) -> Literal["do"]: """'do'."""
    @property
    def order(self) -> Order: """'host' or 'network'."""
    @property
    def position(self) -> int: """Offset of the record in the buffer."""
    @property
    def flags(self) -> int: """Bits 2 and 4 only."""
    @property
    def record_size(self) -> int: """Bytes of the record."""
    @property
    def check_time(self) -> int: """Time of the last check."""
    @property
    def cid(self) -> int: """Container of the record itself."""
    @property
    def size(self) -> int: """Bytes of the object."""
    @property
    def segment_size(self) -> int: """Segment size of DO types 0 and 1."""
    @property
    def crc(self) -> int: """The checksum of the creator."""
    @property
    def ctime(self) -> int: """Time of creation."""
    @property
    def mtime(self) -> int: """Time of the last change."""
    @property
    def fptype(self) -> FPType: """Fingerprint type."""
    @property
    def dotype(self) -> DOType: """DO type."""
    @property
    def references_size(self) -> int: """Bytes of the references."""
    @property
    def segments(self) -> Segments: """The segments, as a sequence of Segment, each created on access."""
    @property
    def entries(self) -> Array[Any]:
        """The stored fields of the segments, without the containers: an array of structures."""
    @property
    def fingerprints(self) -> Array[bytes]: """The fingerprints of the segments."""
    @property
    def sizes(self) -> Array[int]: """The sizes of the segments; computed if the DO type does not store them."""
    @property
    def offsets(self) -> Array[Optional[int]]:
        """The offsets of the segments; None, or 2**64 - 1 in the buffer, if the DO type does not store them."""
    @property
    def dcids(self) -> Array[int]: """The containers of the segments."""
    @property
    def unique_list(self) -> Array[Tuple[int, int]]: """Pairs of container and bytes of the object in it."""
    @property
    def bloom(self) -> Array[int]: """The bitmap of DO type 4; otherwise empty."""
    @property
    def references(self) -> list[Reference]: """The typed references, in stored order."""
    @property
    def legacy_task_ids(self) -> Array[int]: """Task ids that are not typed references."""
    @property
    def legacy_dsids(self) -> Array[int]: """DSIDs that are not typed references."""
    def digest(self) -> Optional[Digest]: """Return one fingerprint for the object as a Digest, or None."""
    def container_sizes(self) -> dict[int, int]:
        """Return a dict of container to bytes: the unique list, plus the record in its container."""
    def to_bytes(self, order: Order) -> bytes: """Return a copy in 'host' or 'network' order."""
    def __bytes__(self) -> bytes: ...

class SegmentView:
    """A valid segment record in a buffer, in either byte order, read in place."""
    def __init__(self, buffer: Buffer) -> None: ...
    @property
    def kind(self) -> Literal["segment"]: """'segment'."""
    @property
    def order(self) -> Order: """'host' or 'network'."""
    @property
    def position(self) -> int: """Offset of the record in the buffer."""
    @property
    def flags(self) -> int: """0 or 2."""
    @property
    def record_size(self) -> int: """Bytes of the record."""
    @property
    def check_time(self) -> int: """Time of the last check."""
    @property
    def path_id(self) -> int: """The path, or the container."""
    @property
    def file_id(self) -> int: """The file; 0 in a container."""
    @property
    def dcid(self) -> Optional[int]: """The container; None for a segment in a file."""
    @property
    def size(self) -> int: """Bytes of the segment."""
    @property
    def crc(self) -> int: """The checksum of the creator."""
    @property
    def key(self) -> bytes: """33 bytes of key data."""
    @property
    def fptype(self) -> FPType: """Fingerprint type."""
    @property
    def crypto_mode(self) -> int: """Not interpreted."""
    @property
    def key_index(self) -> int: """In the byte order of the writer."""
    @property
    def task_ids(self) -> Array[int]: """Ids of the tasks that refer to the segment."""
    @property
    def fingerprints(self) -> Array[bytes]: """The fingerprints of the segment."""
    def to_bytes(self, order: Order, *, strip_task_ids: bool = False) -> bytes:
        """Return a copy in 'host' or 'network' order, with or without task ids."""
    def serialize(self) -> bytes: """Return the serialized form."""
    def __bytes__(self) -> bytes: ...

class DORecord:
    """The record of one stored object."""
    @property
    def flags(self) -> int: """Bits 2 and 4 only."""
    @flags.setter
    def flags(self, value: int) -> None: ...
    @property
    def check_time(self) -> int: """Time of the last check."""
    @check_time.setter
    def check_time(self, value: int) -> None: ...
    @property
    def cid(self) -> int: """Container of the record itself."""
    @cid.setter
    def cid(self, value: int) -> None: ...
    @property
    def sub_do(self) -> bool: """True if segments may have up to 4 GiB."""
    @sub_do.setter
    def sub_do(self, value: bool) -> None: ...
    def __init__(
        self, segments: Iterable[Tuple[Buffer, int, Optional[int], int]], *, cid: int, size: Optional[int] = None,
        segment_size: int = 0, crc: int = 0, ctime: int = 0, mtime: int = 0, fptype: int, dotype: int = 3,
        unique_list: Optional[Union[Buffer, Iterable[Tuple[int, int]]]] = None
    ) -> None: ...
    @staticmethod
    def from_entries(
        entries: Buffer, dcids: Buffer, *, cid: int, size: int, segment_size: int = 0, crc: int = 0, ctime: int = 0,
        mtime: int = 0, fptype: int, dotype: int = 3,
        unique_list: Optional[Union[Buffer, Iterable[Tuple[int, int]]]] = None
    ) -> DORecord: """Build a record from packed entries and 64-bit containers, as in a record in host order."""
    @staticmethod
    def from_bloom(
        bitmap: Buffer, *, cid: int, size: int, segment_size: int = 0, crc: int = 0, ctime: int = 0, mtime: int = 0,
        fptype: int, unique_list: Optional[Union[Buffer, Iterable[Tuple[int, int]]]] = None
    ) -> DORecord: """Build a record of DO type 4, with a bloom bitmap instead of segments."""
    @staticmethod
    def from_buffer(buffer: Buffer, *, sub_do: bool = False) -> DORecord:
        """Copy one stored record in either order; the copy is in host order."""
    @staticmethod
    def from_form(form: Buffer, *, dotype: int, fptype: int, sub_do: bool = False) -> DORecord:
        """Build a record from an exchange form. For a bloom record, call append_unique_list to convert its list."""
    @property
    def record_size(self) -> int: """Bytes of the record."""
    @property
    def size(self) -> int: """Bytes of the object."""
    @property
    def segment_size(self) -> int: """Segment size of DO types 0 and 1."""
    @property
    def crc(self) -> int: """The checksum of the creator."""
    @property
    def ctime(self) -> int: """Time of creation."""
    @property
    def mtime(self) -> int: """Time of the last change."""
    @property
    def fptype(self) -> FPType: """Fingerprint type."""
    @property
    def dotype(self) -> DOType: """DO type."""
    @property
    def segments(self) -> list[Segment]: """The segments, as a list of Segment."""
    @property
    def unique_list(self) -> list[Tuple[int, int]]: """Pairs of container and bytes of the object in it."""
    def append_unique_list(self) -> None:
        """Compute the list of containers and store it. The record must have no references yet."""
    def container_sizes(self) -> dict[int, int]:
        """Return a dict of container to bytes: the unique list, plus the record in its container."""
    @property
    def references(self) -> list[Reference]: """The typed references, by kind and id."""
    def add_reference(self, reference: Union[Tuple[int, int], str]) -> bool:
        """Add a Reference, a (kind, id) or a text such as 'task:17'; kinds 2, 4, 6 and 9.

        Return False if the record already has it.
        """
    def add_serialized_references(self, buffer: Buffer) -> None:
        """Add references of any kind from a buffer in the form of the section in a record."""
    def remove_reference(self, reference: Union[Tuple[int, int], str]) -> bool:
        """Remove a reference; return False if the record does not have it."""
    def clear_references(self, kind: int) -> None: """Remove all references of a kind."""
    def remove_inactive_tasks(self, is_active: Callable[[int], object]) -> int:
        """Remove the task ids for which is_active(task) is false. Return their number."""
    @property
    def order(self) -> Order: """'host' or 'network'."""
    def to_network(self) -> None: """Convert the record to network order."""
    def to_host(self) -> None: """Convert the record to host order."""
    def serialize(self, *, checksum: bool = False) -> bytes:
        """Return the exchange form; the record must be in host order.

        checksum: its head has the checksum of its body instead of the CRC of the record.
        """
    def digest(self) -> Optional[Digest]: """Return one fingerprint for the object as a Digest, or None."""
    def text(self) -> str: """Return the record as one line; the record must be in host order."""
    def __bytes__(self) -> bytes: ...

class SORecord:
    """The record of one stored segment, 104 bytes, without task ids."""
    @property
    def flags(self) -> int: """0 or 2."""
    @flags.setter
    def flags(self, value: int) -> None: ...
    @property
    def dcid(self) -> int: """The container: 1, or 64 and above."""
    @dcid.setter
    def dcid(self, value: int) -> None: ...
    @property
    def size(self) -> int: """Bytes of the segment."""
    @size.setter
    def size(self, value: int) -> None: ...
    @property
    def crc(self) -> int: """The checksum of the creator."""
    @crc.setter
    def crc(self, value: int) -> None: ...
    @property
    def check_time(self) -> int: """Time of the last check."""
    @check_time.setter
    def check_time(self, value: int) -> None: ...
    @property
    def fptype(self) -> FPType: """Fingerprint type."""
    @fptype.setter
    def fptype(self, value: int) -> None: ...
    @property
    def crypto_mode(self) -> int: """Not interpreted."""
    @crypto_mode.setter
    def crypto_mode(self, value: int) -> None: ...
    @property
    def key_index(self) -> int: """In the byte order of the writer."""
    @key_index.setter
    def key_index(self, value: int) -> None: ...
    @property
    def key(self) -> bytes: """33 bytes of key data."""
    @key.setter
    def key(self, value: bytes) -> None: ...
    def __init__(
        self, *, dcid: int, size: int, crc: int = 0, key: Optional[bytes] = None, flags: int = 0, crypto_mode: int = 0,
        fptype: int = 0
    ) -> None: ...
    @staticmethod
    def from_buffer(buffer: Buffer) -> SORecord: """Copy one stored record of 104 bytes in either order."""
    @property
    def path_id(self) -> int: """The path, or the container."""
    @property
    def file_id(self) -> int: """The file; 0 in a container."""
    @property
    def record_size(self) -> int: """104."""
    @property
    def order(self) -> Order: """'host' or 'network'."""
    def to_network(self) -> None: """Convert the record to network order."""
    def to_host(self) -> None: """Convert the record to host order."""
    def serialize(self) -> bytes: """Return the serialized form; the record must be in host order."""
    def __bytes__(self) -> bytes: ...

class Batch:
    """Rows of a Table. It has the Arrow PyCapsule interface."""
    def __len__(self) -> int: ...
    @property
    def column_names(self) -> list[str]: """The names of the columns."""
    def to_numpy(self) -> dict[str, Any]: """Return a dictionary of NumPy arrays, one for each column."""
    def __arrow_c_schema__(self) -> object: ...
    def __arrow_c_array__(self, requested_schema: object = None) -> Tuple[object, object]: ...
    def _buffers(self) -> list[Tuple[Tuple[str, str, str, bool], Any, Any, Any]]: ...

class _Batches(Iterator[Batch]):
    @property
    def skipped(self) -> int: """Number of bad records that were skipped."""
    def __next__(self) -> Batch: ...

class Table:
    """Records as columns. Each use reads the sources from the start.

    It has the Arrow PyCapsule interface, so data frame libraries read it, and iterates over batches of rows.
    """
    @property
    def column_names(self) -> list[str]: """The names of the columns."""
    @property
    def skipped(self) -> int: """Number of bad records that the last use has skipped so far."""
    def __iter__(self) -> _Batches: ...
    def to_numpy(self) -> dict[str, Any]: """Return a dictionary of NumPy arrays, one for each column."""
    def __arrow_c_schema__(self) -> object: ...
    def __arrow_c_stream__(self, requested_schema: object = None) -> object: ...
    def _columns(self) -> list[Tuple[str, str, str, bool]]: ...

def diagnose(buffer: Buffer, *, sub_do: bool = False, references: bool = True, limit: int = 10000) -> list[Finding]:
    """Return the findings of a record of either kind, in either order, errors first.

    sub_do: allow segments up to 4 GiB. references=False: allow no references. limit: the most findings.
    """
def diagnose_form(
    buffer: Buffer, *, dotype: int, fptype: int, checksum: bool = False, sub_do: bool = False, limit: int = 10000
) -> list[Finding]:
    """Return the findings of an exchange form of a DO record.

    checksum: its head has the checksum of its body.
    """
def validate(buffer: Buffer, *, sub_do: bool = False, references: bool = True) -> None:
    """Raise Error, with the findings, unless the buffer is one valid record of either kind, in either order."""
def probe(buffer: Buffer) -> Optional[Probe]:
    """Return kind, byte order and sizes stored at the start of a buffer; None for an unknown kind.

    The record is not validated.
    """
def records(buffer: Buffer, *, sub_do: bool = False, on_error: OnError = "raise") -> Records:
    """Iterate over consecutive records of both kinds in a buffer, each as a View or SegmentView.

    on_error: 'raise' raises Error for a bad record, 'skip' skips it, a function is called with the Error.
    The iteration continues after a bad record if its size is known, and otherwise ends.
    """
def read_segments(
    source: Source, *, on_error: Literal["raise", "skip"] = "raise", sub_do: bool = False
) -> Table:
    """Return a Table with a row for each segment of the DO records in a buffer, a file or several of them.

    on_error: 'raise' or 'skip' bad records.
    """
def read_records(
    source: Source, *, on_error: Literal["raise", "skip"] = "raise", sub_do: bool = False
) -> Table:
    """Return a Table with a row for each record of both kinds in a buffer, a file or several of them.

    on_error: 'raise' or 'skip' bad records.
    """
def _reference_text(reference: Tuple[int, int]) -> str: ...
def _parse_reference(text: str) -> Reference: ...
